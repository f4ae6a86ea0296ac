#pragma once

#include <QString>
#include <QWidget>

// The batch's overall progress in the bottom bar: a line such as "120 of
// 10,000 files · about 3 min left" over a thin bar filled by the share of
// the batch's audio done. Painted here rather than from a label and a
// progress bar: it changes several times a second while a batch runs and
// must never make the bar lay itself out again. Hidden while no batch runs.
class RQBatchProgressView : public QWidget {
    Q_OBJECT
    Q_PROPERTY(QString text READ text NOTIFY textChanged)
    Q_PROPERTY(double fraction READ fraction NOTIFY textChanged)
public:
    explicit RQBatchProgressView(QWidget *parent = nullptr);

    // done of total files have ended; fraction (0 to 1) of the batch's audio
    // is done; secondsLeft is negative while no estimate means anything.
    void setProgress(int done, int total, double fraction, double secondsLeft);
    QString text() const { return m_text; }
    double fraction() const { return m_fraction; }

    // "about 40 s left", "about 3 min left", "about 2 h 05 min left".
    static QString timeLeftText(double seconds);

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

signals:
    void textChanged();

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    QString m_text;
    double m_fraction = 0;
};

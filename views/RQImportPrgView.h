#pragma once

#include <QWidget>

class QLabel;
class QProgressBar;
class QPushButton;

// The translucent veil laid over the list while an import runs: a busy
// indicator ("importPI"), the name of the file being added and a Cancel
// button. Hidden unless busy.
class RQImportPrgView : public QWidget {
    Q_OBJECT
    Q_PROPERTY(QString importingFileName READ importingFileName WRITE setImportingFileName NOTIFY
                   importingFileNameChanged)
    Q_PROPERTY(bool busy READ isBusy WRITE setBusy NOTIFY busyChanged)
public:
    explicit RQImportPrgView(QWidget *parent = nullptr);

    QString importingFileName() const { return m_importingFileName; }
    bool isBusy() const { return m_busy; }
    QProgressBar *importPI() const { return m_indicator; }
    QPushButton *cancelButton() const { return m_cancel; }

public slots:
    void setImportingFileName(const QString &name);
    // Shows the veil with a running indicator, or hides it.
    void setBusy(bool busy);

signals:
    void cancelRequested();
    void importingFileNameChanged();
    void busyChanged();

protected:
    void paintEvent(QPaintEvent *event) override;
    void resizeEvent(QResizeEvent *event) override;

private:
    void updateLabel();

    QString m_importingFileName;
    bool m_busy = false;
    QProgressBar *m_indicator;
    QLabel *m_label;
    QPushButton *m_cancel;
};

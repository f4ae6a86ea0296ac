#pragma once

#include <QPointer>
#include <QWidget>

class QLabel;
class QProgressBar;
class QPushButton;

// The translucent veil laid over the list while an import runs, with a busy
// indicator "importPI", the name of the file being added and a Cancel button
// "btnCancelImport". A .ui file may supply those children in a layout of its
// own; otherwise the veil makes them the first time it is used. Hidden
// unless busy.
class RQImportPrgView : public QWidget {
    Q_OBJECT
    Q_PROPERTY(QString importingFileName READ importingFileName WRITE setImportingFileName NOTIFY
                   importingFileNameChanged)
    Q_PROPERTY(bool busy READ isBusy WRITE setBusy NOTIFY busyChanged)
public:
    explicit RQImportPrgView(QWidget *parent = nullptr);

    QString importingFileName() const { return m_importingFileName; }
    bool isBusy() const { return m_busy; }
    QProgressBar *importPI();
    QPushButton *cancelButton();

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
    void showEvent(QShowEvent *event) override;

private:
    void ensureContent();
    void updateLabel();

    QString m_importingFileName;
    bool m_busy = false;
    QPointer<QProgressBar> m_indicator;
    QPointer<QLabel> m_label;
    QPointer<QPushButton> m_cancel;
};

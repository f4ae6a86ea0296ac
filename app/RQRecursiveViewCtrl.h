#pragma once

#include <QObject>
#include <QPointer>

class QWidget;

// Holds the open dialog's one extra input: whether chosen folders are walked
// into their sub-folders. One instance for the application's life; its view
// (the check box) is made again whenever a dialog that held it is gone.
class RQRecursiveViewCtrl : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool recursive READ recursive WRITE setRecursive NOTIFY recursiveChanged)

public:
    static RQRecursiveViewCtrl *shareRecursiveViewCtrl();

    bool recursive() const { return m_recursive; }
    void setRecursive(bool recursive);
    // The accessory view, loaded from RQRecursiveViewCtrl.ui; its check box
    // edits recursive.
    QWidget *view();

signals:
    void recursiveChanged();

private:
    RQRecursiveViewCtrl() = default;
    bool m_recursive = false;
    QPointer<QWidget> m_view;
};

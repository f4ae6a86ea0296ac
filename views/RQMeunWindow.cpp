#include "views/RQMeunWindow.h"

#include <QKeyEvent>

// A popup rather than a tool window: Wayland compositors place popups where
// we ask, and a click anywhere else closes it.
RQMeunWindow::RQMeunWindow(QWidget *parent) : QWidget(parent, Qt::Popup | Qt::FramelessWindowHint)
{
    setFocusPolicy(Qt::StrongFocus);
}

bool RQMeunWindow::event(QEvent *event)
{
    if (event->type() == QEvent::WindowDeactivate && isVisible())
        emit resignedKey();
    return QWidget::event(event);
}

void RQMeunWindow::changeEvent(QEvent *event)
{
    if (event->type() == QEvent::ActivationChange && isVisible() && !isActiveWindow())
        emit resignedKey();
    QWidget::changeEvent(event);
}

void RQMeunWindow::keyPressEvent(QKeyEvent *event)
{
    if (event->key() == Qt::Key_F4 && event->modifiers() == Qt::AltModifier) {
        emit closeRequested();
        return;
    }
    switch (event->key()) {
    case Qt::Key_Escape:
        hide();
        return;
    case Qt::Key_Up:
    case Qt::Key_Right:
        emit stepRequested(1);
        return;
    case Qt::Key_Down:
    case Qt::Key_Left:
        emit stepRequested(-1);
        return;
    case Qt::Key_PageUp:
        emit stepRequested(10);
        return;
    case Qt::Key_PageDown:
        emit stepRequested(-10);
        return;
    default:
        QWidget::keyPressEvent(event);
    }
}

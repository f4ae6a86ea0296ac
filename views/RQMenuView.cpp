#include "views/RQMenuView.h"

#include <QPaintEvent>
#include <QPainter>

RQMenuView::RQMenuView(QWidget *parent) : QWidget(parent)
{
    // Takes focus so the arrow keys reach the popup even before a control is clicked.
    setFocusPolicy(Qt::StrongFocus);
}

void RQMenuView::paintEvent(QPaintEvent *event)
{
    QPainter painter(this);
    painter.fillRect(event->rect(), QColor(61, 57, 58));
    // A border drawn inside the bounds, one point wide on every side.
    const QColor border(56, 52, 53);
    const int w = width(), h = height();
    painter.fillRect(QRect(0, 0, w, 1), border);
    painter.fillRect(QRect(0, h - 1, w, 1), border);
    painter.fillRect(QRect(0, 0, 1, h), border);
    painter.fillRect(QRect(w - 1, 0, 1, h), border);
}

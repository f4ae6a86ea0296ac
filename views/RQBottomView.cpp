#include "views/RQBottomView.h"

#include <QPainter>

RQBottomView::RQBottomView(QWidget *parent) : QWidget(parent) {}

void RQBottomView::paintEvent(QPaintEvent *) {}

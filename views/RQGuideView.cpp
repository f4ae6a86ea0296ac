#include "views/RQGuideView.h"

#include <QPainter>

RQGuideView::RQGuideView(QWidget *parent) : QWidget(parent) {}

void RQGuideView::paintEvent(QPaintEvent *) {}

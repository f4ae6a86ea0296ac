#include "views/RQImportPrgView.h"

#include <QPainter>

RQImportPrgView::RQImportPrgView(QWidget *parent) : QWidget(parent) {}

void RQImportPrgView::paintEvent(QPaintEvent *) {}

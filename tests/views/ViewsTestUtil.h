#pragma once

#include <QApplication>
#include <QColor>
#include <QImage>
#include <QPainter>
#include <QStyleOptionViewItem>
#include <QString>
#include <QtGlobal>

#include "views/RQTableCellView.h"

// Pixel comparison with a small tolerance for smoothing of scaled images.
inline bool near(QColor actual, QColor expected, int tolerance = 0)
{
    return qAbs(actual.red() - expected.red()) <= tolerance && qAbs(actual.green() - expected.green()) <= tolerance
        && qAbs(actual.blue() - expected.blue()) <= tolerance;
}

inline QString describe(QColor c)
{
    return QStringLiteral("(%1,%2,%3,%4)").arg(c.red()).arg(c.green()).arg(c.blue()).arg(c.alpha());
}

#define QCOMPARE_PIXEL(image, x, y, expected, tolerance)                                                      \
    QVERIFY2(near((image).pixelColor((x), (y)), (expected), (tolerance)),                                     \
             qPrintable(QStringLiteral("pixel (%1,%2) is %3, expected %4")                                    \
                            .arg(x)                                                                           \
                            .arg(y)                                                                           \
                            .arg(describe((image).pixelColor((x), (y))), describe(expected))))

// One row painted by the delegate alone, over white, at the given size.
inline QImage paintRow(RQTableCellView &cell, const QModelIndex &index, QSize size, QStyle::State extra = {})
{
    QImage image(size, QImage::Format_ARGB32);
    image.fill(Qt::white);
    QPainter painter(&image);
    QStyleOptionViewItem option;
    option.rect = QRect(QPoint(0, 0), size);
    option.font = QApplication::font();
    option.fontMetrics = QFontMetrics(option.font);
    option.palette = QApplication::palette();
    option.state = QStyle::State_Enabled | extra;
    cell.paint(&painter, option, index);
    return image;
}

#pragma once

#include <QColor>
#include <QImage>
#include <QString>
#include <QtGlobal>

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

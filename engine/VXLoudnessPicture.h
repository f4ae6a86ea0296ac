#pragma once

// A picture of one file's loudness over time: the short-term curve (3 s
// windows) with the target, the integrated level, the true-peak ceiling and
// the loudness-range band; after a run, the output's curve over the input's.
// QtGui only, so the command line draws it without a display and the app
// can show the same picture. Text needs a QGuiApplication (any platform,
// "offscreen" included).

#include "engine/codec/VXLoudnessMeter.h"

#include <QColor>
#include <QImage>
#include <QRectF>
#include <QSize>
#include <QString>
#include <utility>

// The defaults suit a file of its own; a window passes its own palette.
struct VXLoudnessPictureColors {
    QColor background{0x1f, 0x22, 0x27};
    QColor grid{0x3a, 0x3f, 0x47};
    QColor text{0xc8, 0xcc, 0xd2};
    QColor input{0x6f, 0xa8, 0xdc};
    QColor output{0xf0, 0xa0, 0x3c};
    QColor target{0x6c, 0xc0, 0x6c};
    QColor ceiling{0xe0, 0x5a, 0x5a};
    QColor integrated{0xe8, 0xe8, 0xe8};
};

struct VXLoudnessPictureData {
    QString title;
    VXLoudness input;   // with its curve
    VXLoudness output;  // the result's, after a run; no curve otherwise
    double targetLufs = NAN;
    double ceilingDbtp = NAN;
    // Pixels. A report draws a thousand pictures: 1 strokes its curves
    // fifteen times faster than a thicker pen, which takes Qt's stroker.
    double curveWidth = 1.5;
    VXLoudnessPictureColors colors;
};

// The low and high ends of the loudness range from a short-term curve (EBU
// Tech 3342: gated at -70 LUFS and 20 LU under the curve's mean, then the
// 10th and 95th percentiles); NaN for a curve with nothing above the gates.
std::pair<double, double> VXLoudnessRangeBand(const std::vector<float> &shortTerm);

QImage VXLoudnessPicture(const VXLoudnessPictureData &data, QSize size = QSize(960, 360));

// Where a picture of that size draws its curves, and the seconds its width
// spans from the file's start: for marks drawn over it (a playhead).
QRectF VXLoudnessPlotArea(QSize size);
double VXLoudnessPictureSeconds(const VXLoudnessPictureData &data);

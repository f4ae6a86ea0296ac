#pragma once

// A picture of one file's loudness over time: the short-term curve (3 s
// windows) with the target, the integrated level, the true-peak ceiling and
// the loudness-range band; after a run, the output's curve over the input's.
// QtGui only, so the command line draws it without a display and the app
// can show the same picture. Text needs a QGuiApplication (any platform,
// "offscreen" included).

#include "engine/codec/VXLoudnessMeter.h"

#include <QImage>
#include <QSize>
#include <QString>
#include <utility>

struct VXLoudnessPictureData {
    QString title;
    VXLoudness input;   // with its curve
    VXLoudness output;  // the result's, after a run; no curve otherwise
    double targetLufs = NAN;
    double ceilingDbtp = NAN;
};

// The low and high ends of the loudness range from a short-term curve (EBU
// Tech 3342: gated at -70 LUFS and 20 LU under the curve's mean, then the
// 10th and 95th percentiles); NaN for a curve with nothing above the gates.
std::pair<double, double> VXLoudnessRangeBand(const std::vector<float> &shortTerm);

QImage VXLoudnessPicture(const VXLoudnessPictureData &data, QSize size = QSize(960, 360));

#pragma once

// Measuring without writing: what a file is, and what a job with given
// settings would do to it. For "analyze" in every front end, with the meter
// that measures and checks every job.

#include "engine/codec/VXFilter.h"
#include "engine/codec/VXLoudnessMeter.h"

#include <QString>
#include <QVariantMap>

struct VXAnalysis {
    bool ok = false;
    QString reason;          // why the file could not be measured
    VXLoudness loudness;     // with the maxima, and the short-term curve when asked
    double gainDb = NAN;     // what the job would apply; 0 for silence
    QString normalization;   // "linear", "peak-capped" or "limited"
};

// Decodes path once (at its own rate, nothing written), or takes its kept
// figures (VXMeasureWithCache), and plans the gain as a job would. Blocks:
// run it on a pool thread; a cancel, when given, ends it at once (not ok,
// reason "cancelled"). dualMono measures a mono file as played on two
// speakers; without curve the loudness has its maxima but no curve.
VXAnalysis VXAnalyzeFile(const QString &path, float targetLufs, float ceiling, bool limitPeaks,
                         bool dualMono = false, const VXCancel *cancel = nullptr, bool curve = true);

// The job's planning from a measurement: the gain toward target, capped or
// limited at the ceiling; nullopt for silence.
std::optional<VXGainPlan> VXPlanGain(const VXLoudness &loudness, float targetLufs, float ceiling, bool limitPeaks);

// A measurement in the first pass's record form ("input_i", "input_tp",
// "input_lra", "input_thresh", "target_offset"), numbers as loudnorm
// prints them, so album tracks and other jobs are read the same way.
QVariantMap VXMeasurementRecord(const VXLoudness &loudness);

#pragma once

// An EBU R128 meter (libebur128) that is independent of loudnorm: it checks
// what a job really wrote, and measures files without writing anything.

#include <QString>
#include <atomic>
#include <cmath>

struct VXLoudness {
    double integrated = NAN;  // LUFS; -inf when no block passes the gate
    double truePeak = NAN;    // dBTP
    double range = NAN;       // LU
    bool measured() const { return !std::isnan(integrated); }
};

// Measures the audio stream a transcoding would normalise (the best one),
// decoding only. False with a reason when the file cannot be read; cancel,
// when given and set, stops it early (also false).
bool VXMeasureFile(const QString &path, bool truePeak, VXLoudness *out, QString *why,
                   const std::atomic<bool> *cancel = nullptr);

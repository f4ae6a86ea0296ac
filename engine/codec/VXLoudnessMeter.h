#pragma once

// An EBU R128 meter (libebur128) that is independent of loudnorm: it checks
// what a job really wrote, and measures files without writing anything.

#include <QString>
#include <atomic>
#include <cmath>
#include <memory>

struct VXLoudness {
    double integrated = NAN;  // LUFS; -inf when no block passes the gate
    double truePeak = NAN;    // dBTP
    double range = NAN;       // LU
    bool measured() const { return !std::isnan(integrated); }
};

struct AVFrame;

// Decoded frames in, figures out: for measuring inside a decoding loop. The
// first frame fixes the rate and layout; later frames that differ
// (concatenated files) are converted to them. True peak (four times
// oversampled) costs more than the rest together, so it is asked for only
// where it is needed.
class VXFrameMeter {
public:
    explicit VXFrameMeter(bool truePeak);
    ~VXFrameMeter();
    // False when the frame cannot be measured.
    bool add(const AVFrame *frame);
    VXLoudness finish();

    VXFrameMeter(const VXFrameMeter &) = delete;
    VXFrameMeter &operator=(const VXFrameMeter &) = delete;

private:
    struct Impl;
    std::unique_ptr<Impl> d;
};

// Measures the audio stream a transcoding would normalise (the best one),
// decoding only. False with a reason when the file cannot be read; cancel,
// when given and set, stops it early (also false).
bool VXMeasureFile(const QString &path, bool truePeak, VXLoudness *out, QString *why,
                   const std::atomic<bool> *cancel = nullptr);

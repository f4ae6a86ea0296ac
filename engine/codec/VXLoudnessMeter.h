#pragma once

#include "engine/codec/VXError.h"

// An EBU R128 meter (libebur128) that is independent of loudnorm: it checks
// what a job really wrote, and measures files without writing anything.

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QtGlobal>
#include <cmath>
#include <map>
#include <memory>
#include <vector>

// Seconds between two points of the short-term curve: the 10 Hz at which
// EBU Tech 3341 updates its meters, so the maxima below are that meter's.
inline constexpr double kVXShortTermStep = 0.1;
inline constexpr double kVXShortTermWindow = 3.0;

struct VXLoudness {
    double integrated = NAN;  // LUFS; -inf when no block passes the gate
    double truePeak = NAN;    // dBTP
    double range = NAN;       // LU
    double threshold = NAN;   // LUFS, the relative gate of the integrated figure
    // Asked for with the curve only; -inf for silence.
    double maxShortTerm = NAN;   // LUFS, 3 s windows
    double maxMomentary = NAN;   // LUFS, 400 ms windows
    // Point k is the loudness of the 3 s ending at (k + 1) * kVXShortTermStep;
    // the first windows count the time before the start as silence, as
    // every R128 meter does.
    std::vector<float> shortTerm;
    // Asked for with the curve: the loudness of each 100 ms of the stream,
    // in hundredths of an LU (kVXSilentStep where it is digitally silent).
    // The curve, the maxima and an album's figures follow from these alone,
    // so figures kept from an earlier measurement give the same results.
    std::vector<qint16> steps;
    bool measured() const { return !std::isnan(integrated); }
};

inline constexpr qint16 kVXSilentStep = INT16_MIN;

// A step's loudness as steps keep it: rounded to 0.01 LU, -327 LUFS at the
// quietest (far below any gate), kVXSilentStep for -inf.
qint16 VXStepOf(double lufs);
// The curve and the maxima of a measurement from its steps, as the meter
// gives them: the short-term point k is the 3 s ending with step k, the
// time before the start counting as silence; momentary windows are 400 ms.
void VXCurveFromSteps(VXLoudness &loudness);

// What the gating of BS.1770 makes of the steps of one or more streams
// together, as if their audio were one (an album): integrated loudness, its
// relative gate and the loudness range. The gating blocks are libebur128's:
// 400 ms windows ending at every step from the fourth on, and for the range
// 3 s windows ending every second from the third on; no block spans two
// streams. Unmeasured (NaN) when no stream has steps.
struct VXGatedLoudness {
    double integrated = NAN;
    double threshold = NAN;
    double range = NAN;
};
VXGatedLoudness VXGateSteps(const std::vector<const std::vector<qint16> *> &streams);

enum VXMeasureFlag {
    VXMeasureTruePeak = 1,
    VXMeasureCurve = 2,         // maxima and the short-term curve
    VXMeasureOtherStreams = 4,  // every further audio stream, on its own
    // A one-channel stream as heard on two speakers (+3 dB), as platforms
    // that play mono through both count it; streams of 2+ channels as ever.
    VXMeasureDualMono = 8,
};

struct AVFrame;
struct AVChannelLayout;
class VXCancel;

// Decoded frames in, figures out: for measuring inside a decoding loop. The
// first frame fixes the rate and layout (one of no stated order is its
// channel count's default); later frames that differ (concatenated files)
// are converted to them, save a change of layout from or to a custom order,
// which FFmpeg's converter cannot remix. Each channel weighs by its place
// (positionWeight in the source says why): the LFE not at all, side and
// rear channels as surrounds (+1.5 dB), the rest 1.0. True peak (four times
// oversampled) costs more than the rest together, so it is asked for only
// where it is needed. dualMono: see VXMeasureDualMono.
class VXFrameMeter {
public:
    explicit VXFrameMeter(bool truePeak, bool curve = false, bool dualMono = false);
    ~VXFrameMeter();
    // False when the frame cannot be measured.
    bool add(const AVFrame *frame);
    VXLoudness finish();
    // Integrated loudness (and range) over the gated blocks of all the
    // meters together, as libebur128 computes it; VXGateSteps gives the
    // same from the steps alone, which is what albums use.
    static double combinedLoudness(const std::vector<const VXFrameMeter *> &meters, double *range = nullptr);

    VXFrameMeter(const VXFrameMeter &) = delete;
    VXFrameMeter &operator=(const VXFrameMeter &) = delete;

private:
    struct Impl;
    std::unique_ptr<Impl> d;
};

// Whether FFmpeg's loudnorm filter weighs a layout's channels as
// VXFrameMeter does. Its meter goes by index, as if the order were
// L R C LFE Ls Rs (L R Ls Rs for four channels, L R C Ls Rs for five), and
// leaves out every channel past the sixth: right for FFmpeg's mono, stereo,
// 3.0, quad, 5.0 and 5.1, wrong for 2.1, 4.0, 6.1, 7.1 and others.
// With dualMono, a mono stream is never alike: loudnorm counts it once.
bool VXLoudnormWeighsAlike(const AVChannelLayout &layout, bool dualMono = false);

// Which meter measured, as a cache or a file's provenance records it: the
// meter's name with the version of what computes it, so that figures of
// another meter, or of this one before its weights changed, are never taken
// for its own. loudnorm: FFmpeg's filter; else the reference meter.
QString VXMeterIdentity(bool loudnorm);

// Measures the audio stream a transcoding would normalise (the best one),
// decoding only; flags are VXMeasureFlag bits (true: the true peak too).
// With VXMeasureDualMono a mono file reads 3 dB louder.
// An error with its reason when the file cannot be read; a cancel, when one
// is given, stops it at once, in the worker child too ("cancelled").
// With VXMeasureOtherStreams and others given, the further audio streams'
// figures go there by stream index.
VXResult<VXLoudness> VXMeasureFile(const QString &path, int flags, const VXCancel *cancel = nullptr,
                                   std::map<int, VXLoudness> *others = nullptr);


// The tracks of an album, each measured with its true peak, and the album:
// integrated loudness and range over every track's gated blocks together,
// the loudest track's true peak.
struct VXAlbumLoudness {
    std::vector<VXLoudness> tracks;  // in the order given; unmeasured where one failed
    QStringList reasons;             // why a track failed, empty where it did not
    VXLoudness album;
};

// An album's figures from its tracks, each measured with its steps and true
// peak (those unmeasured are left out): integrated loudness, gate and range
// by VXGateSteps over every track's steps, the loudest track's true peak.
VXLoudness VXAlbumOf(const std::vector<VXLoudness> &tracks);

// Measures paths as one album: an error with its reason when no track
// measures, or when cancel stops it (as VXMeasureFile's). Of the flags,
// VXMeasureDualMono applies (to each mono track); the true peak is always
// measured.
VXResult<VXAlbumLoudness> VXMeasureAlbum(const QStringList &paths, int flags = 0, const VXCancel *cancel = nullptr);

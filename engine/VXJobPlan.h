#pragma once

// What a job does with a measurement, decided with no file at hand: the
// gain of each stream, whether the file is skipped, and the level its
// result is held to. The analysis and the job plan with the one VXPlanGain.

#include "engine/VXAudioGain.h"
#include "engine/VXJobSettings.h"
#include "engine/codec/VXFilter.h"
#include "engine/codec/VXLoudnessMeter.h"

#include <QJsonObject>
#include <QList>
#include <map>
#include <memory>
#include <optional>

// What pass 1 (or the album's measurement) found, as numbers.
struct VXJobLoudness {
    // The main stream as its record gives it: integrated, true peak, range,
    // gate; NaN for a figure the record lacks or cannot spell as a number.
    VXLoudness input;
    double targetOffset = NAN;
    // Album mode: the album's figures decide the gain, the track's own
    // integrated figure the level its result must reach.
    std::optional<VXAlbumMember> album;
    // Further audio streams by input index, each normalised on its own.
    std::map<int, VXLoudness> otherStreams;
};

// A gain in a format's own gain fields: Opus takes the gain as planned,
// MP3 the whole number of 2^(1/4) steps (1.505 dB) nearest to it
// whose level keeps the true peak under the ceiling. No limiter can work
// without re-encoding, so the gain is planned peak-capped whatever the
// settings say.
struct VXLosslessPlan {
    double gainDb = 0.0;   // exact, for Opus
    int steps = 0;         // for MP3
    double stepGainDb = 0.0;
    // The level before the gain that the result is judged from: the
    // track's own in album mode. NaN: not held to one.
    double baseLoudness = NAN;
};

struct VXJobPlan {
    // Already within skipWithin of the target: nothing is written.
    bool skipped = false;
    double measuredI = NAN;  // the level the skip rule looked at
    // The figures pass 2's filter is given: the album's integrated and true
    // peak in album mode, the record's otherwise.
    VXLoudness planned;
    double inputTruePeak = NAN;  // the file's own, which the gain moves
    double targetOffset = NAN;
    float targetLufs = 0.0f;
    // nullopt: nothing loud enough to measure; the file is left as it is.
    std::optional<VXGainPlan> gain;
    // The level the result must measure; NaN: not held to one.
    double expectedLoudness = NAN;
    // Rounds of pass 2 allowed for what a lossy encoder or a limiter lost:
    // none in an album, where one track raised apart would upset the rest.
    int maxCorrections = 0;
    struct Stream {
        int index = -1;
        VXLoudness measured;
        VXGainPlan gain;
    };
    QList<Stream> otherStreams;  // silent ones are left out, and as they are
    QString album;  // the album whose gain this is; empty outside album mode
    // With settings.lossless; the plan above stays the fallback's.
    std::optional<VXLosslessPlan> lossless;
};

// The whole steps nearest to gainDb whose peak stays at or under ceiling.
int VXLosslessSteps(double gainDb, double truePeak, double ceiling);

// The plan of a job: settings.targetLoudness is the item's own position.
VXJobPlan VXPlanJob(const VXJobLoudness &loudness, const VXJobSettings &settings);

// Pass 1's record ("input_i", "input_tp", ...) read once into numbers, the
// way the filter reads an attribute.
VXLoudness VXLoudnessFromRecord(const QJsonObject &record, double *targetOffset = nullptr);

// The loudness filter of a job's passes: its target (LUFS), ceiling, meter
// and dual-mono weighting.
std::shared_ptr<VXFilter> VXLoudnessFilter(float targetLufs, const VXJobSettings &settings);
// Makes filter pass 2's for one stream: the figures it was planned from and
// a plain gain (a limiter on the peaks where limitPeaks says), printing nothing.
void VXSetPlannedFigures(VXFilter &filter, const VXLoudness &planned, bool limitPeaks);
// Pass 2's filter of the main stream as a job first runs it, so what it
// applies can be heard before it is written.
std::shared_ptr<VXFilter> VXSecondPassFilter(const VXJobPlan &plan, const VXJobSettings &settings);

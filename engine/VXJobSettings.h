#pragma once

#include "engine/VXLoudnessScale.h"

#include <QString>
#include <cmath>

class QSettings;

// How a press of Gain treats its files: one value, filled by the popup and
// the menus in the app and by the command line's parser, checked here, and
// copied onto each item when its job starts (later edits apply to the next
// job only). A setting is added here, in its editor and where it is used.
struct VXJobSettings {
    // The 0..100 position of new rows (app) or of every file (command line);
    // a row keeps its own target once it has one.
    float targetLoudness = VXLoudnessScale::kDefaultPosition;
    // dBTP, -9..0; the gain stops where the true peak meets it, unless
    // limitPeaks lets a limiter hold the peaks instead.
    float truePeakCeiling = -2.0f;
    bool limitPeaks = false;
    // LU, 0..20; a file measured this close to the target is left untouched.
    // NaN: never.
    double skipWithin = NAN;
    // Pass 1 with FFmpeg's loudnorm (its figures, at 192 kHz) instead of the
    // reference meter at the file's own rate, which checks every result.
    bool measureWithLoudnorm = false;
    // A mono file is measured as if played on two speakers (+3 dB).
    bool dualMono = false;
    // Each album of a batch gets one gain.
    bool treatAsAlbums = false;
    // Measure and write ReplayGain tags instead of normalising the audio.
    bool tagsOnly = false;
    // Replace mode: the result keeps the original's modification time.
    bool preserveModificationTime = false;
    // Opus and MP3 take their gain in their own gain fields, every coded
    // packet otherwise as it was; other formats are normalised as usual.
    bool lossless = false;
    // Put back the gain fields a lossless gain changed, from the file's
    // record of it. A command-line action: never stored.
    bool undoLossless = false;

    static constexpr double kMaxSkipWithin = 20.0;

    // The checks every editor uses; written so that NaN fails them.
    static bool isValidTarget(double position)
    {
        return position >= VXLoudnessScale::kMinPosition && position <= VXLoudnessScale::kMaxPosition;
    }
    static bool isValidCeiling(double dbtp) { return dbtp >= VXMinTruePeakTarget && dbtp <= VXMaxTruePeakTarget; }
    // NaN is valid: it stands for "skip nothing".
    static bool isValidSkipWithin(double lu) { return std::isnan(lu) || (lu >= 0.0 && lu <= kMaxSkipWithin); }
    bool isValid() const;
    // Every field out of range replaced by its default (a stored value from
    // an older or hand-edited file).
    VXJobSettings sanitized() const;

    // The VXMeasureFlag bits every measurement of a job with these settings takes.
    int measureFlags() const;

    // Stored and read as a unit, under the keys the app has always used.
    void save(QSettings &settings) const;
    static VXJobSettings load(const QSettings &settings);

    bool operator==(const VXJobSettings &other) const;
    bool operator!=(const VXJobSettings &other) const { return !(*this == other); }
};

#pragma once

#include <QString>

// What the app remembers between runs: the output folder, the target of new
// rows, how Gain measures, skips and holds peaks, and whether replacing
// keeps modification times.
namespace RQAppSettings {

inline constexpr char kRQUserSelectedOutFolder[] = "kRQUserSelectedOutFolder";
inline constexpr char kRQTruePeakCeiling[] = "kRQTruePeakCeiling";
inline constexpr char kRQLimitPeaks[] = "kRQLimitPeaks";
inline constexpr char kRQPreserveModificationTime[] = "kRQPreserveModificationTime";
inline constexpr char kRQTargetLoudness[] = "kRQTargetLoudness";
inline constexpr char kRQDualMono[] = "kRQDualMono";
inline constexpr char kRQMeasureWithLoudnorm[] = "kRQMeasureWithLoudnorm";
inline constexpr char kRQSkipWithin[] = "kRQSkipWithin";
inline constexpr char kRQTreatAsAlbums[] = "kRQTreatAsAlbums";
inline constexpr char kRQTagsOnly[] = "kRQTagsOnly";

// The remembered folder's absolute path; a null string when none is stored
// or the stored one is no longer an existing folder (the entry stays).
QString userSelectedOutFolder();
// Stores the folder's absolute path at once; false (and nothing stored) when
// the path is not an existing folder.
bool setUserSelectedOutFolder(const QString &folder);

// dBTP, -9..0; the engine's default (-2) when none or a value out of range
// is stored.
float truePeakCeiling();
void setTruePeakCeiling(float dbtp);
bool limitPeaks();
void setLimitPeaks(bool limit);
// Whether a replaced original's modification time goes to its result.
bool preserveModificationTime();
void setPreserveModificationTime(bool keep);
// The position (0..100) last chosen in the popup, for new rows; the
// engine's default when none or one off the scale is stored.
float targetLoudness();
void setTargetLoudness(float position);
bool dualMono();
void setDualMono(bool dualMono);
bool measureWithLoudnorm();
void setMeasureWithLoudnorm(bool loudnorm);
// LU; NaN (nothing skipped) when none or a negative value is stored.
double skipWithin();
void setSkipWithin(double lu);
// Album mode: each album of a press gets one gain.
bool treatAsAlbums();
void setTreatAsAlbums(bool albums);
// Gain writes ReplayGain tags and leaves the audio as it is.
bool tagsOnly();
void setTagsOnly(bool tagsOnly);

} // namespace RQAppSettings

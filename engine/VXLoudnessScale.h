#pragma once

// The target scale every front end shows: items keep a position 0..100 on
// loudnorm's range of I, people think in LUFS and in delivery standards.
// One place for the mapping, so a row, the popup and the command line never
// disagree about what a position means.

#include "engine/codec/VXCodecConstants.h"

#include <cmath>
#include <optional>
#include <string_view>

namespace VXLoudnessScale {

inline constexpr float kMinLufs = VXMinIntegratedLoudnessTarget;
inline constexpr float kMaxLufs = VXMaxIntegratedLoudnessTarget;
inline constexpr float kMinPosition = 0.0f;
inline constexpr float kMaxPosition = 100.0f;
// -24 LUFS (ATSC A/85's level), in single precision -23.9995.
inline constexpr float kDefaultPosition = 70.77f;

// Single precision on purpose: the filter's target at the default position
// comes out as -23.9995, and the list shows that value.
constexpr float lufsForPosition(float position)
{
    return (position * (kMaxLufs - kMinLufs)) / 100.0f + kMinLufs;
}

// The position whose target is lufs, or nothing when lufs is out of range or
// the position would miss it by more than 0.01 LU.
constexpr std::optional<float> positionForLufs(double lufs)
{
    if (!(lufs >= kMinLufs && lufs <= kMaxLufs))
        return std::nullopt;
    const double d = double(kMaxLufs) - double(kMinLufs);
    double p = (lufs - kMinLufs) * 100.0 / d;
    p = p < kMinPosition ? kMinPosition : p > kMaxPosition ? kMaxPosition : p;
    const double miss = double(lufsForPosition(float(p))) - lufs;
    if (miss > 0.01 || miss < -0.01)
        return std::nullopt;
    return float(p);
}

} // namespace VXLoudnessScale

// Delivery standards by the names people know them by: the level and
// ceiling a preset sets, and what a delivery is judged against (the
// compliance report). A preset without a ceiling of its own keeps the one
// chosen (or the default). NaN where the document sets no such limit.
struct VXPreset {
    std::string_view name;
    float lufs;
    float truePeak;      // the ceiling the preset sets, dBTP
    std::string_view title;
    float tolerance;     // LU either side of lufs
    float maxTruePeak;   // dBTP
    float maxShortTerm;  // LUFS, 3 s windows
    float maxMomentary;  // LUFS, 400 ms windows
    std::string_view source;
};

// Where each number comes from:
// - EBU R 128 (v4.0, 2020): -23 LUFS, +-0.5 LU where normalising is
//   possible (+-1 LU is for live programmes only), true peak at most -1 dBTP.
//   R 128 sets no maximum short-term or momentary loudness for programmes.
// - EBU R 128 s1 (v3.0, 2016), short-form content (commercials, trailers,
//   promos): R 128's figures plus a maximum short-term loudness of -18 LUFS
//   (+5 LU); the momentary alternative of earlier versions was dropped.
// - ATSC A/85:2013: -24 LKFS with a +-2 dB tolerance, true peak at most -2 dBTP.
// - Spotify for Artists, "Loudness normalization": -14 LUFS integrated, true
//   peak kept below -1 dBTP. It publishes a target, not a tolerance: +-1 LU,
//   the tolerance Apple publishes for podcasts.
// - Apple Podcasts, "Audio requirements": -16 LKFS +-1 dB, true peak at most -1 dBFS.
// - ReplayGain 2.0: -18 LUFS is the reference players bring files to; it sets
//   no delivery tolerance (+-1 LU, as above) and no peak limit (players read
//   the peak tags instead).
inline constexpr VXPreset kVXPresets[] = {
    {"ebu", -23.0f, -1.0f, "EBU R128 (broadcast)", 0.5f, -1.0f, NAN, NAN, "EBU R 128 (2020)"},
    {"ebu-s1", -23.0f, -1.0f, "EBU R128 s1 (commercials, trailers)", 0.5f, -1.0f, -18.0f, NAN,
     "EBU R 128 s1 (2016)"},
    {"atsc", -24.0f, -2.0f, "ATSC A/85 (US broadcast)", 2.0f, -2.0f, NAN, NAN, "ATSC A/85:2013"},
    {"streaming", -14.0f, NAN, "Music streaming", 1.0f, -1.0f, NAN, NAN,
     "Spotify for Artists, Loudness normalization (no tolerance published: +-1 LU)"},
    {"podcast", -16.0f, NAN, "Podcasts and spoken word", 1.0f, -1.0f, NAN, NAN, "Apple Podcasts, Audio requirements"},
    {"replaygain", -18.0f, NAN, "ReplayGain 2.0 reference", 1.0f, NAN, NAN, NAN,
     "ReplayGain 2.0 (no tolerance published: +-1 LU)"},
};

constexpr const VXPreset *VXPresetNamed(std::string_view name)
{
    for (const VXPreset &p : kVXPresets)
        if (p.name == name)
            return &p;
    return nullptr;
}

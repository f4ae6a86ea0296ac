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

// Delivery standards by the names people know them by. A preset without a
// ceiling of its own keeps the one chosen (or the default).
struct VXPreset {
    std::string_view name;
    float lufs;
    float truePeak;  // dBTP; NaN where the standard names none
    std::string_view title;
};

inline constexpr VXPreset kVXPresets[] = {
    {"ebu", -23.0f, -1.0f, "EBU R128 (broadcast)"},
    {"atsc", -24.0f, -2.0f, "ATSC A/85 (US broadcast)"},
    {"streaming", -14.0f, NAN, "Music streaming"},
    {"podcast", -16.0f, NAN, "Podcasts and spoken word"},
    {"replaygain", -18.0f, NAN, "ReplayGain 2.0 reference"},
};

constexpr const VXPreset *VXPresetNamed(std::string_view name)
{
    for (const VXPreset &p : kVXPresets)
        if (p.name == name)
            return &p;
    return nullptr;
}

#pragma once

// Whether a file's figures meet a delivery standard: each limit on its own,
// pass or fail, as a value. Pure, so the report, its tests and any front end
// judge alike.

#include <QString>
#include <QStringView>

#include <cmath>

struct VXPreset;

// What one delivery is held to. NaN where nothing is limited.
struct VXLimits {
    QString name;    // the preset's name; empty for a run's own target
    QString title;   // as a report shows it
    QString source;  // the document the numbers come from
    double target = NAN;     // LUFS
    double tolerance = NAN;  // LU either side of the target
    double maxTruePeak = NAN;   // dBTP
    double maxShortTerm = NAN;  // LUFS
    double maxMomentary = NAN;  // LUFS
};

VXLimits VXLimitsOf(const VXPreset &preset);
// The standard a file is judged by: the preset named, or else the one whose
// level is targetLufs (to 0.05 LU), or else the run's own target held to the
// 0.5 LU every result is checked against, and its ceiling.
VXLimits VXLimitsFor(QStringView presetName, double targetLufs, double ceilingDbtp);

// The figures judged; NaN where not measured.
struct VXFigures {
    double integrated = NAN;    // LUFS
    double truePeak = NAN;      // dBTP
    double range = NAN;         // LU, never limited: shown only
    double maxShortTerm = NAN;  // LUFS
    double maxMomentary = NAN;  // LUFS
    bool measured() const { return std::isfinite(integrated); }
};

enum class VXVerdict {
    Pass,
    Fail,
    Unmeasured,  // limited, but the figure is missing
    Unlimited,   // the standard sets no limit on it
};

struct VXJudgement {
    VXVerdict integrated = VXVerdict::Unmeasured;
    VXVerdict truePeak = VXVerdict::Unlimited;
    VXVerdict shortTerm = VXVerdict::Unlimited;
    VXVerdict momentary = VXVerdict::Unlimited;
    // Fail when any limit is missed; Pass only when every limit was
    // measured and met; Unmeasured otherwise.
    VXVerdict overall() const;
};

// Limits are inclusive: a file exactly at -22.5 LUFS meets -23 +-0.5 LU.
VXJudgement VXJudge(const VXFigures &figures, const VXLimits &limits);

// "pass", "fail", "not measured" or "no limit".
QString VXVerdictName(VXVerdict verdict);

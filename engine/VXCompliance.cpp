#include "engine/VXCompliance.h"

#include "engine/VXLoudnessScale.h"

namespace {

QString text(std::string_view s) { return QString::fromUtf8(s.data(), qsizetype(s.size())); }

// Figures arrive rounded to hundredths (as --json prints them); a limit met
// to the last printed digit is met.
constexpr double kSlack = 1e-6;

VXVerdict atMost(double value, double limit)
{
    if (std::isnan(limit))
        return VXVerdict::Unlimited;
    if (std::isnan(value))
        return VXVerdict::Unmeasured;
    return value <= limit + kSlack ? VXVerdict::Pass : VXVerdict::Fail;
}

} // namespace

VXLimits VXLimitsOf(const VXPreset &preset)
{
    VXLimits l;
    l.name = text(preset.name);
    l.title = text(preset.title);
    l.source = text(preset.source);
    l.target = double(preset.lufs);
    l.tolerance = double(preset.tolerance);
    l.maxTruePeak = double(preset.maxTruePeak);
    l.maxShortTerm = double(preset.maxShortTerm);
    l.maxMomentary = double(preset.maxMomentary);
    return l;
}

VXLimits VXLimitsFor(QStringView presetName, double targetLufs, double ceilingDbtp)
{
    if (!presetName.isEmpty())
        if (const VXPreset *p = VXPresetNamed(presetName.toString().toLower().toStdString()))
            return VXLimitsOf(*p);
    for (const VXPreset &p : kVXPresets)
        if (std::abs(double(p.lufs) - targetLufs) < 0.05)
            return VXLimitsOf(p);
    VXLimits l;
    l.target = targetLufs;
    l.tolerance = 0.5;
    l.maxTruePeak = ceilingDbtp;
    l.title = QStringLiteral("Target %1 LUFS").arg(targetLufs, 0, 'f', 1);
    l.source = QStringLiteral("the target and true-peak ceiling chosen");
    return l;
}

VXJudgement VXJudge(const VXFigures &f, const VXLimits &limits)
{
    VXJudgement j;
    if (std::isnan(limits.target) || std::isnan(limits.tolerance))
        j.integrated = VXVerdict::Unlimited;
    else if (!f.measured())
        j.integrated = VXVerdict::Unmeasured;
    else
        j.integrated = std::abs(f.integrated - limits.target) <= limits.tolerance + kSlack ? VXVerdict::Pass
                                                                                           : VXVerdict::Fail;
    j.truePeak = atMost(f.truePeak, limits.maxTruePeak);
    j.shortTerm = atMost(f.maxShortTerm, limits.maxShortTerm);
    j.momentary = atMost(f.maxMomentary, limits.maxMomentary);
    return j;
}

VXVerdict VXJudgement::overall() const
{
    const VXVerdict all[] = {integrated, truePeak, shortTerm, momentary};
    bool unmeasured = false;
    for (const VXVerdict v : all) {
        if (v == VXVerdict::Fail)
            return VXVerdict::Fail;
        unmeasured = unmeasured || v == VXVerdict::Unmeasured;
    }
    return unmeasured ? VXVerdict::Unmeasured : VXVerdict::Pass;
}

QString VXVerdictName(VXVerdict verdict)
{
    switch (verdict) {
    case VXVerdict::Pass: return QStringLiteral("pass");
    case VXVerdict::Fail: return QStringLiteral("fail");
    case VXVerdict::Unmeasured: return QStringLiteral("not measured");
    case VXVerdict::Unlimited: return QStringLiteral("no limit");
    }
    return {};
}

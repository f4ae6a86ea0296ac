#include "engine/VXJobSettings.h"

#include "engine/codec/VXLoudnessMeter.h"

#include <QSettings>

namespace {

// The app's keys from before the settings were one value: kept, so nobody's
// choices are lost on an update.
constexpr char kTargetLoudness[] = "kRQTargetLoudness";
constexpr char kTruePeakCeiling[] = "kRQTruePeakCeiling";
constexpr char kLimitPeaks[] = "kRQLimitPeaks";
constexpr char kSkipWithin[] = "kRQSkipWithin";
constexpr char kMeasureWithLoudnorm[] = "kRQMeasureWithLoudnorm";
constexpr char kDualMono[] = "kRQDualMono";
constexpr char kTreatAsAlbums[] = "kRQTreatAsAlbums";
constexpr char kTagsOnly[] = "kRQTagsOnly";
constexpr char kPreserveModificationTime[] = "kRQPreserveModificationTime";
constexpr char kLossless[] = "kRQLossless";

bool sameSkip(double a, double b) { return a == b || (std::isnan(a) && std::isnan(b)); }

double number(const QSettings &settings, const char *key, double fallback)
{
    bool ok = false;
    const double v = settings.value(QLatin1String(key)).toDouble(&ok);
    return ok ? v : fallback;
}

} // namespace

bool VXJobSettings::isValid() const
{
    return isValidTarget(targetLoudness) && isValidCeiling(truePeakCeiling) && isValidSkipWithin(skipWithin);
}

VXJobSettings VXJobSettings::sanitized() const
{
    const VXJobSettings defaults;
    VXJobSettings s = *this;
    if (!isValidTarget(s.targetLoudness))
        s.targetLoudness = defaults.targetLoudness;
    if (!isValidCeiling(s.truePeakCeiling))
        s.truePeakCeiling = defaults.truePeakCeiling;
    // A negative or too wide window means no skipping, as "never" is safe.
    if (!isValidSkipWithin(s.skipWithin))
        s.skipWithin = NAN;
    return s;
}

int VXJobSettings::measureFlags() const { return VXMeasureTruePeak | (dualMono ? VXMeasureDualMono : 0); }

void VXJobSettings::save(QSettings &settings) const
{
    settings.setValue(QLatin1String(kTargetLoudness), targetLoudness);
    settings.setValue(QLatin1String(kTruePeakCeiling), truePeakCeiling);
    settings.setValue(QLatin1String(kLimitPeaks), limitPeaks);
    // Nothing stored stands for "skip nothing"; NaN does not survive every format.
    if (skipWithin >= 0.0)
        settings.setValue(QLatin1String(kSkipWithin), skipWithin);
    else
        settings.remove(QLatin1String(kSkipWithin));
    settings.setValue(QLatin1String(kMeasureWithLoudnorm), measureWithLoudnorm);
    settings.setValue(QLatin1String(kDualMono), dualMono);
    settings.setValue(QLatin1String(kTreatAsAlbums), treatAsAlbums);
    settings.setValue(QLatin1String(kTagsOnly), tagsOnly);
    settings.setValue(QLatin1String(kPreserveModificationTime), preserveModificationTime);
    settings.setValue(QLatin1String(kLossless), lossless);
}

VXJobSettings VXJobSettings::load(const QSettings &settings)
{
    const VXJobSettings d;
    VXJobSettings s;
    s.targetLoudness = float(number(settings, kTargetLoudness, d.targetLoudness));
    s.truePeakCeiling = float(number(settings, kTruePeakCeiling, d.truePeakCeiling));
    s.skipWithin = number(settings, kSkipWithin, NAN);
    const auto flag = [&](const char *key) { return settings.value(QLatin1String(key), false).toBool(); };
    s.limitPeaks = flag(kLimitPeaks);
    s.measureWithLoudnorm = flag(kMeasureWithLoudnorm);
    s.dualMono = flag(kDualMono);
    s.treatAsAlbums = flag(kTreatAsAlbums);
    s.tagsOnly = flag(kTagsOnly);
    s.preserveModificationTime = flag(kPreserveModificationTime);
    s.lossless = flag(kLossless);
    return s.sanitized();
}

bool VXJobSettings::operator==(const VXJobSettings &o) const
{
    return targetLoudness == o.targetLoudness && truePeakCeiling == o.truePeakCeiling && limitPeaks == o.limitPeaks
        && sameSkip(skipWithin, o.skipWithin) && measureWithLoudnorm == o.measureWithLoudnorm
        && dualMono == o.dualMono && treatAsAlbums == o.treatAsAlbums && tagsOnly == o.tagsOnly
        && preserveModificationTime == o.preserveModificationTime && lossless == o.lossless
        && undoLossless == o.undoLossless;
}

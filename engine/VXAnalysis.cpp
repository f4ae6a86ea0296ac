#include "engine/VXAnalysis.h"

#include "engine/VXMeasureCache.h"

#include "engine/codec/VXCodecConstants.h"
#include "engine/codec/VXFilter.h"

namespace {

QString recordNumber(double v)
{
    if (std::isnan(v))
        return QStringLiteral("nan");
    if (std::isinf(v))
        return v < 0 ? QStringLiteral("-inf") : QStringLiteral("inf");
    return QString::number(v, 'f', 2);
}

} // namespace

QVariantMap VXMeasurementRecord(const VXLoudness &loudness)
{
    // No offset to carry: nothing was normalised on the way, and linear
    // mode reads the gain from input_i alone.
    return {{QStringLiteral("input_i"), recordNumber(loudness.integrated)},
            {QStringLiteral("input_tp"), recordNumber(loudness.truePeak)},
            {QStringLiteral("input_lra"), recordNumber(loudness.range)},
            {QStringLiteral("input_thresh"), recordNumber(loudness.threshold)},
            {QStringLiteral("target_offset"), recordNumber(0.0)}};
}

std::optional<VXGainPlan> VXPlanGain(const VXLoudness &loudness, float targetLufs, float ceiling, bool limitPeaks)
{
    // The same planning as the job's, from the same attributes.
    const auto filter = VXFilter::filterWithName(QString::fromLatin1(VXALoudnormName));
    filter->setValue(QVariant(targetLufs), QString::fromLatin1(kVXAIntegratedLoudnessTarget));
    filter->setValue(QVariant(ceiling), QString::fromLatin1(kVXATruePeakTarget));
    filter->setValue(QVariant(loudness.integrated), QString::fromLatin1(kVXAMeasuredIntegratedLoudness));
    filter->setValue(QVariant(loudness.truePeak), QString::fromLatin1(kVXAMeasuredTruePeak));
    filter->setValue(QVariant(true), QString::fromLatin1(kVXALinearGain));
    filter->setValue(QVariant(limitPeaks), QString::fromLatin1(kVXALimitPeaks));
    return filter->linearPlan();
}

VXAnalysis VXAnalyzeFile(const QString &path, float targetLufs, float ceiling, bool limitPeaks, bool dualMono,
                         const VXCancel *cancel, bool curve)
{
    VXAnalysis a;
    const int flags = VXMeasureTruePeak | (curve ? VXMeasureCurve : 0) | (dualMono ? VXMeasureDualMono : 0);
    VXResult<VXMeasured> measured = VXMeasureWithCache(path, flags, cancel);
    a.ok = measured.ok();
    if (!a.ok) {
        a.reason = measured.reason();
        return a;
    }
    a.loudness = std::move(measured->loudness);
    if (const auto plan = VXPlanGain(a.loudness, targetLufs, ceiling, limitPeaks)) {
        a.gainDb = plan->gainDb;
        a.normalization = VXNormalizationName(plan->kind);
    } else {
        a.gainDb = 0.0;  // silent: left as it is
        a.normalization = VXNormalizationName(VXNormalization::Linear);
    }
    return a;
}

#include "engine/VXJobPlan.h"

#include "engine/VXAnalysis.h"
#include "engine/VXLoudnessScale.h"
#include "engine/codec/VXCodecConstants.h"
#include "engine/codec/VXLossless.h"

#include <QJsonValue>
#include <cmath>
#include <cstdlib>
#include <limits>

namespace {

// As the filter reads an attribute: the number the text starts with, NaN
// when it starts with none.
double recordNumber(const QJsonObject &record, const char *key)
{
    const QJsonValue value = record.value(QLatin1String(key));
    if (value.isDouble())
        return value.toDouble();
    const QByteArray text = value.toString().toUtf8();
    char *end = nullptr;
    const double v = std::strtod(text.constData(), &end);
    return end != text.constData() ? v : std::numeric_limits<double>::quiet_NaN();
}

} // namespace

VXLoudness VXLoudnessFromRecord(const QJsonObject &record, double *targetOffset)
{
    VXLoudness loudness;
    loudness.integrated = recordNumber(record, "input_i");
    loudness.truePeak = recordNumber(record, "input_tp");
    loudness.range = recordNumber(record, "input_lra");
    loudness.threshold = recordNumber(record, "input_thresh");
    if (targetOffset)
        *targetOffset = recordNumber(record, "target_offset");
    return loudness;
}

int VXLosslessSteps(double gainDb, double truePeak, double ceiling)
{
    int steps = int(std::lround(gainDb / vx::kGainStepDb));
    // Rounding up may cross the ceiling that the gain itself stopped at.
    while (std::isfinite(truePeak) && truePeak + steps * vx::kGainStepDb > ceiling + 1e-9)
        --steps;
    return steps;
}

namespace {

VXLosslessPlan planLossless(const VXJobPlan &plan, const VXJobLoudness &loudness, const VXJobSettings &settings)
{
    VXLosslessPlan l;
    const std::optional<VXGainPlan> capped = settings.limitPeaks
        ? VXPlanGain(plan.planned, plan.targetLufs, settings.truePeakCeiling, false)
        : plan.gain;
    if (!capped)
        return l;  // silent: every field stays, and nothing holds it to a level
    l.gainDb = capped->gainDb;
    l.steps = VXLosslessSteps(capped->gainDb, plan.planned.truePeak, settings.truePeakCeiling);
    l.stepGainDb = l.steps * vx::kGainStepDb;
    l.baseLoudness = loudness.album ? loudness.album->track.integrated : loudness.input.integrated;
    return l;
}

} // namespace

VXJobPlan VXPlanJob(const VXJobLoudness &loudness, const VXJobSettings &settings)
{
    VXJobPlan plan;
    plan.targetLufs = VXLoudnessScale::lufsForPosition(settings.targetLoudness);
    plan.planned = loudness.input;
    plan.targetOffset = loudness.targetOffset;
    plan.inputTruePeak = loudness.input.truePeak;
    if (loudness.album) {
        plan.album = loudness.album->name;
        // Planned from the album's figures, every track's gain is the same
        // number; its loudest peak decides the cap.
        plan.planned.integrated = loudness.album->album.integrated;
        plan.planned.truePeak = loudness.album->album.truePeak;
    }
    plan.measuredI = plan.planned.integrated;
    if (std::isfinite(plan.measuredI) && std::fabs(plan.measuredI - double(plan.targetLufs)) <= settings.skipWithin) {
        plan.skipped = true;
        return plan;
    }
    plan.gain = VXPlanGain(plan.planned, plan.targetLufs, settings.truePeakCeiling, settings.limitPeaks);
    if (settings.lossless)
        plan.lossless = planLossless(plan, loudness, settings);
    // Each further audio stream gets its own gain, by the same rules.
    for (const auto &[index, measured] : loudness.otherStreams) {
        if (!std::isfinite(measured.integrated))
            continue;  // silent: left as it is
        if (const auto gain = VXPlanGain(measured, plan.targetLufs, settings.truePeakCeiling, settings.limitPeaks))
            plan.otherStreams.append({index, measured, *gain});
    }
    if (!plan.gain)
        return plan;  // nothing loud enough to measure: not held to a level
    const bool limited = plan.gain->kind == VXNormalization::Limited;
    if (loudness.album) {
        // Each track should move by the gain exactly; a limiter takes what
        // it must from the loud ones, so those are not held to it.
        plan.expectedLoudness = limited ? NAN : loudness.album->track.integrated + plan.gain->gainDb;
    } else {
        plan.expectedLoudness = plan.gain->expectedLoudness;
        plan.maxCorrections = 3;
    }
    return plan;
}

std::shared_ptr<VXFilter> VXLoudnessFilter(float targetLufs, const VXJobSettings &settings)
{
    auto filter = VXFilter::filterWithName(QString::fromLatin1(VXALoudnormName));
    filter->setValue(QVariant(targetLufs), QString::fromLatin1(kVXAIntegratedLoudnessTarget));
    filter->setValue(QVariant(settings.truePeakCeiling), QString::fromLatin1(kVXATruePeakTarget));
    filter->setValue(QString::fromLatin1(settings.measureWithLoudnorm ? VXMeterLoudnorm : VXMeterEbur128),
                     QString::fromLatin1(kVXAMeter));
    filter->setValue(QVariant(settings.dualMono), QString::fromLatin1(kVXADualMono));
    return filter;
}

void VXSetPlannedFigures(VXFilter &filter, const VXLoudness &planned, bool limitPeaks)
{
    filter.setValue(QVariant(planned.integrated), QString::fromLatin1(kVXAMeasuredIntegratedLoudness));
    filter.setValue(QVariant(planned.truePeak), QString::fromLatin1(kVXAMeasuredTruePeak));
    filter.setValue(QVariant(planned.range), QString::fromLatin1(kVXAMeasuredLoudnessRange));
    filter.setValue(QVariant(true), QString::fromLatin1(kVXALinearGain));
    filter.setValue(QVariant(limitPeaks), QString::fromLatin1(kVXALimitPeaks));
    filter.setValue(QString::fromLatin1(VXPrintFormatNone), QString::fromLatin1(kVXPrintFormat));
}

std::shared_ptr<VXFilter> VXSecondPassFilter(const VXJobPlan &plan, const VXJobSettings &settings)
{
    auto filter = VXLoudnessFilter(plan.targetLufs, settings);
    VXSetPlannedFigures(*filter, plan.planned, settings.limitPeaks);
    filter->setValue(QVariant(plan.planned.threshold), QString::fromLatin1(kVXAMeasuredThresh));
    filter->setValue(QVariant(plan.targetOffset), QString::fromLatin1(kVXAGainOffset));
    return filter;
}

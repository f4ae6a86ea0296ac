#include "engine/VXAudition.h"

#include "engine/VXAnalysis.h"
#include "engine/VXJobPlan.h"
#include "engine/codec/VXFilter.h"

#include <QJsonObject>

namespace {

// Where A peaks at most once raised to B's loudness: a little under full
// scale, as the true-peak ceilings are.
constexpr double kMatchedPeakDbtp = -1.0;

} // namespace

VXAudition VXPlanAudition(const VXAuditionFacts &facts)
{
    VXAudition audition;
    audition.original = facts.input;
    audition.peakDbtp = facts.measured.truePeak;
    if (facts.result) {
        const VXGainResult &done = *facts.result;
        // Skipped: nothing was written, the original is the result.
        audition.result = done.skipped ? facts.input : facts.replaced ? facts.input : facts.output;
        audition.plainGainDb = done.skipped || !std::isfinite(done.gainDb) ? 0.0 : done.gainDb;
        if (facts.replaced && !done.skipped) {
            audition.original.clear();
            audition.why = QStringLiteral("The original was replaced by the result");
        }
        return audition;
    }
    if (!facts.measured.measured()) {
        audition.why = QStringLiteral("Not measured yet");
        return audition;
    }
    // Through the record a job plans from, so B's figures are the job's to
    // the digit (an analysis carries no offset, as an album's track does not).
    VXJobLoudness loudness;
    loudness.input = VXLoudnessFromRecord(QJsonObject::fromVariantMap(VXMeasurementRecord(facts.measured)),
                                          &loudness.targetOffset);
    const VXJobPlan plan = VXPlanJob(loudness, facts.settings);
    audition.result = facts.input;
    if (plan.skipped || !plan.gain) {
        // Within the skip window, or silent: a job leaves it as it is.
        audition.plainGainDb = 0.0;
        return audition;
    }
    audition.plainGainDb = plan.gain->gainDb;
    audition.resultFilters.push_back(VXSecondPassFilter(plan, facts.settings));
    return audition;
}

std::vector<std::shared_ptr<VXFilter>> VXAudition::originalFilters(bool matchLoudness) const
{
    if (!matchLoudness || !std::isfinite(plainGainDb) || plainGainDb == 0.0)
        return {};
    auto gain = VXFilter::filterWithName(QStringLiteral("volume"));
    gain->setValue(QString::number(plainGainDb, 'g', 17) + QStringLiteral("dB"), QStringLiteral("volume"));
    return {gain};
}

float VXAudition::level(bool matchLoudness) const
{
    if (!matchLoudness || !std::isfinite(plainGainDb) || !std::isfinite(peakDbtp))
        return 1.0f;
    const double over = peakDbtp + plainGainDb - kMatchedPeakDbtp;
    return over > 0.0 ? float(std::pow(10.0, -over / 20.0)) : 1.0f;
}

bool VXAudition::soundsLike(const VXAudition &other) const
{
    auto same = [](double x, double y) { return x == y || (std::isnan(x) && std::isnan(y)); };
    if (original != other.original || result != other.result || !same(plainGainDb, other.plainGainDb)
        || !same(peakDbtp, other.peakDbtp) || resultFilters.size() != other.resultFilters.size())
        return false;
    for (size_t i = 0; i < resultFilters.size(); ++i) {
        // As text: an unknown figure is NaN, which no number equals.
        const QMap<QString, QVariant> mine = resultFilters[i]->attributes();
        const QMap<QString, QVariant> theirs = other.resultFilters[i]->attributes();
        if (resultFilters[i]->name() != other.resultFilters[i]->name() || mine.keys() != theirs.keys())
            return false;
        for (auto it = mine.begin(); it != mine.end(); ++it)
            if (it.value().toString() != theirs.value(it.key()).toString())
                return false;
    }
    return true;
}

// The two-pass job: measure with the loudness filter printing its record,
// plan one gain from it, apply it, check the result with the meter that
// measured the input, place it.
#include "engine/VXGainJob.h"
#include "engine/VXAudioGainShared.h"

#include "engine/VXAnalysis.h"
#include "engine/VXTempDir.h"
#include "engine/codec/VXCodecConstants.h"
#include "engine/codec/VXFilter.h"
#include "engine/codec/VXLog.h"
#include "engine/codec/VXTranscoding.h"

#include <QFile>
#include <algorithm>
#include <cmath>

VXGainJob::VXGainJob(VXAudioGain &item, VXGainBlock block)
    : m_item(item), m_block(std::move(block)), m_settings(item.jobSettings()), m_target(item.loudnormValue())
{
    m_settings.targetLoudness = item.targetLoudness();
}

VXGainEnd VXGainJob::end(const VXError &error)
{
    if (error.code == VXGainCancelled)
        return VXGainCancelled;
    return VXGainEnd(m_item.fail(error.description));
}

VXGainEnd VXGainJob::run()
{
    {
        QMutexLocker locker(&m_item.m_lock);
        m_item.m_measurement.clear();
        m_item.m_result = {};
        m_item.m_inputId = VXFileId::of(m_item.m_inputFile);
    }
    if (m_item.m_cancel.isCancelled())
        return VXGainCancelled;
    // Made by us with these settings, as its tag says: nothing to decode,
    // not even its album.
    if (const std::optional<VXProvenance> made = VXProvenanceSkip(m_item.inputFile(), m_settings))
        return skipAsMade(*made);
    if (const VXResult<> album = m_item.resolveAlbum(); !album)
        return end(album.error());
    if (m_settings.undoLossless)
        return undoLossless();
    if (m_settings.tagsOnly && !m_settings.lossless)
        return VXGainEnd(m_item.runTagsOnly());
    if (!m_item.chooseTempOutFile())
        return end(VXError::because(QStringLiteral("Cannot create a temporary file in %1 (it must be a writable folder of this user's, not a link)").arg(VXTempDir::rootPath())));

    const VXResult<Measurement> measured = measure();
    if (!measured)
        return end(measured.error());
    if (!measured->loudness) {
        VXLog(QStringLiteral("Waring: Can not using two pass gain(%1).").arg(measured->unusable));
        if (m_settings.lossless)
            noteFallback(QStringLiteral("no usable measurement"));
        return runOnePass();
    }
    const VXJobPlan plan = VXPlanJob(*measured->loudness, m_settings);
    if (plan.skipped)
        return skip(plan);
    QString fallback;
    if (plan.lossless) {
        const VXResult<std::optional<Normalised>> lossless = normaliseLossless(plan, &fallback);
        if (!lossless)
            return end(lossless.error());
        if (*lossless)
            return verifyAndPlace((*lossless)->result, (*lossless)->expectedLoudness);
        VXLog(QStringLiteral("%1 is normalised the usual way: %2").arg(m_item.inputFile(), fallback));
        if (m_settings.tagsOnly) {
            // Tags only, then: the audio stays as it is.
            QFile::remove(m_item.tempOutFile());
            const VXGainEnd tagged = VXGainEnd(m_item.runTagsOnly());
            noteFallback(fallback);
            return tagged;
        }
    }
    VXResult<Normalised> normalised = normalise(plan);
    if (!normalised)
        return end(normalised.error());
    if (!fallback.isEmpty()) {
        normalised->result.lossless.asked = true;
        normalised->result.lossless.fallback = fallback;
    }
    return verifyAndPlace(normalised->result, normalised->expectedLoudness);
}

// Pass 1, or the album's measurement where the track has one: the record
// kept for measurement(), read once into the figures the plan takes.
VXResult<VXGainJob::Measurement> VXGainJob::measure()
{
    Measurement m;
    QJsonObject record;
    const std::optional<VXAlbumMember> album = m_item.albumMember();
    if (album) {
        // Measured with its album already: the gain is the album's.
        record = QJsonObject::fromVariantMap(VXMeasurementRecord(album->track));
        report(50);
    } else {
        const VXResult<Caught> caught = m_settings.measureWithLoudnorm ? firstPassRecord() : keptOrFirstPassRecord();
        if (!caught)
            return caught.error();
        if (caught->record.isEmpty()) {
            m.unusable = caught->unusable;
            return m;
        }
        record = caught->record;
    }
    // With the loudnorm meter: loudnorm weighs channels by index, which
    // misreads some layouts (2.1, 6.1, 7.1); for those, pass 1 also measured
    // the input with the meter that checks the result, and its figures stand in.
    if (m_input.measured()) {
        const QVariantMap ours = VXMeasurementRecord(m_input);
        for (const char *key : {"input_i", "input_lra", "input_thresh"})
            record[QLatin1String(key)] = QJsonValue::fromVariant(ours.value(QLatin1String(key)));
    }
    {
        QMutexLocker locker(&m_item.m_lock);
        m_item.m_measurement = record.toVariantMap();
    }
    VXJobLoudness loudness;
    loudness.input = VXLoudnessFromRecord(record, &loudness.targetOffset);
    loudness.album = album;
    loudness.otherStreams = m_otherStreams;
    m.loudness = std::move(loudness);
    return m;
}

// Already there: the original stays as it is, byte for byte, and pass 1's
// output (if any) goes at once rather than with the cache.
VXGainEnd VXGainJob::skip(const VXJobPlan &plan)
{
    QFile::remove(m_item.tempOutFile());
    QMutexLocker locker(&m_item.m_lock);
    m_item.m_result.skipped = true;
    m_item.m_result.gainDb = 0.0;
    m_item.m_result.measuredI = plan.measuredI;
    m_item.m_result.album = plan.album;
    return VXGainSucceeded;
}

// The level the earlier run's result measured stands in for pass 1's record.
VXGainEnd VXGainJob::skipAsMade(const VXProvenance &made)
{
    QMutexLocker locker(&m_item.m_lock);
    m_item.m_measurement = made.measurementRecord();
    m_item.m_result.skipped = true;
    m_item.m_result.gainDb = 0.0;
    m_item.m_result.measuredI = made.integrated;
    return VXGainSucceeded;
}

VXResult<VXGainJob::Normalised> VXGainJob::normalise(const VXJobPlan &plan)
{
    // The plan's target is the item's own, as m_target is.
    const auto filter = VXSecondPassFilter(plan, m_settings);
    std::map<int, std::shared_ptr<VXFilter>> streamFilters;
    for (const VXJobPlan::Stream &stream : plan.otherStreams) {
        auto streamFilter = makeLoudnessFilter();
        VXSetPlannedFigures(*streamFilter, stream.measured, m_settings.limitPeaks);
        streamFilters[stream.index] = streamFilter;
    }
    const bool limited = plan.gain && plan.gain->kind == VXNormalization::Limited;
    VXLoudness output;
    auto pass = [&](Pass kind) -> VXResult<> {
        QString why;
        auto pass2 = VXTranscoding::initWithInput(m_item.inputFile(), m_item.tempOutFile(), &why);
        if (!pass2)
            return VXError::because(why);
        pass2->addAudioFilter(filter);
        for (const auto &[index, streamFilter] : streamFilters)
            pass2->addStreamFilter(index, streamFilter);
        // The file as written, decoded again by the meter that measured the
        // input: what a player will hear. A limiter leaves a true peak only
        // a meter can tell; a gain moves the measured one by exactly its size.
        pass2->setMeasuresOutput((limited ? VXMeasureTruePeak : 0) | (m_settings.measureFlags() & VXMeasureDualMono));
        return runOutputPass(std::move(pass2), kind, &output);
    };
    if (const VXResult<> ran = pass(Pass::Second); !ran)
        return ran.error();
    const VXResult<int> corrections = correct(plan, *filter, &output, pass);
    if (!corrections)
        return corrections.error();

    Normalised n;
    n.expectedLoudness = plan.expectedLoudness;
    VXGainResult &result = n.result;
    result.outputI = output.integrated;
    result.outputLra = output.range;
    result.corrections = *corrections;
    result.album = plan.album;
    for (const VXJobPlan::Stream &stream : plan.otherStreams)
        result.otherStreams.append({stream.index, stream.gain.gainDb, VXNormalizationName(stream.gain.kind)});
    if (!plan.gain) {
        // Nothing loud enough to measure (digital silence): left as it is.
        result.gainDb = 0.0;
        result.normalization = VXNormalizationName(VXNormalization::Linear);
        return n;
    }
    const VXGainPlan applied = filter->linearPlan().value_or(*plan.gain);
    result.gainDb = applied.gainDb;
    result.normalization = VXNormalizationName(applied.kind);
    // The record's own peak, not the album's: this track's peak moves by the gain.
    result.outputTp = limited ? output.truePeak : plan.inputTruePeak + result.gainDb;
    return n;
}

// Where loud peaks carry much of the loudness, limiting them costs some of
// it, and a lossy encoder may drop some of a dense signal's energy (loud
// white noise loses half a LU in 128 kb/s MP3): the gain is raised by what
// is missing, a few times at most, while the ceiling allows. The plan and
// the check use one meter, so what is missing is what the processing lost,
// never a disagreement between meters. A plain gain that misses by more
// than a codec loses is a fault to show, not to hide.
VXResult<int> VXGainJob::correct(const VXJobPlan &plan, VXFilter &filter, VXLoudness *output,
                                 const std::function<VXResult<>(Pass)> &pass)
{
    const QString targetKey = QString::fromLatin1(kVXAIntegratedLoudnessTarget);
    int corrections = 0;
    // How much of a raise reached the result last time: a limiter gives back
    // less than it is given, so the next raise is scaled up by that.
    double response = 1.0;
    double lastTarget = NAN, lastLoudness = NAN;
    for (int round = 0; plan.gain && round < plan.maxCorrections; ++round) {
        // A plain gain stays what the measurement says unless its result
        // would be refused.
        const bool limited = plan.gain->kind == VXNormalization::Limited;
        const double missing = plan.gain->expectedLoudness - output->integrated;
        if (!std::isfinite(missing) || std::fabs(missing) <= (limited ? 0.2 : 0.5))
            break;
        const QVariant current = filter.valueForAttribute(targetKey);
        const double currentTarget = double(current.toFloat());
        if (std::isfinite(lastTarget) && std::fabs(currentTarget - lastTarget) > 0.01)
            response = std::clamp((output->integrated - lastLoudness) / (currentTarget - lastTarget), 0.25, 1.0);
        lastTarget = currentTarget;
        lastLoudness = output->integrated;
        const double raised = currentTarget + missing / response;
        if (limited ? raised - m_target > 12.0 : std::fabs(raised - m_target) > 2.0)
            break;
        const double gainBefore = filter.linearPlan().value_or(*plan.gain).gainDb;
        filter.setValue(QVariant(float(raised)), targetKey);
        const std::optional<VXGainPlan> next = filter.linearPlan();
        if (!limited && (!next || std::fabs(next->gainDb - gainBefore) < 0.05)) {
            filter.setValue(current, targetKey);  // held by the ceiling: another pass would change nothing
            break;
        }
        ++corrections;
        if (const VXResult<> ran = pass(Pass::Correction); !ran)
            return ran.error();
    }
    return corrections;
}

// An output is kept only when it measures within half a LU of the level it
// should have reached; otherwise nothing is placed and the original stays.
VXGainEnd VXGainJob::verifyAndPlace(const VXGainResult &result, double expected)
{
    {
        QMutexLocker locker(&m_item.m_lock);
        m_item.m_result = result;
    }
    if (std::isfinite(expected)) {
        if (!std::isfinite(result.outputI))
            return end(VXError::because(QStringLiteral("missed the target: the result measures silent")));
        if (std::fabs(result.outputI - expected) > 0.5)
            return end(VXError::because(QStringLiteral("missed the target: reached %1 LUFS").arg(result.outputI, 0, 'f', 1)));
    }
    // Recorded only once verified, so a file that says it was made with
    // these settings was. A file that cannot take the record is still a
    // good result: placed, and measured again by the next run.
    VXProvenance made = VXProvenance::forJob(m_settings, m_target, result.normalization);
    made.integrated = result.outputI;
    made.truePeak = result.outputTp;
    made.range = result.outputLra;
    if (const VXResult<> recorded = VXWriteProvenance(m_item.tempOutFile(), made); !recorded) {
        QMutexLocker locker(&m_item.m_lock);
        m_item.m_result.warning = QStringLiteral("not tagged with its settings (%1)").arg(recorded.reason());
    }
    return VXGainEnd(m_item.finishWithPlacement());
}

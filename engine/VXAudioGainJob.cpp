// The two-pass job: measure with the loudness filter printing JSON, catch the
// record, apply one gain planned from it, check the result with the meter
// that measured the input, place it.
#include "engine/VXAudioGain.h"
#include "engine/VXAudioGainShared.h"

#include "engine/VXAnalysis.h"
#include "engine/VXTempDir.h"
#include "engine/codec/VXCodecConstants.h"
#include "engine/codec/VXFilter.h"
#include "engine/codec/VXLog.h"
#include "engine/codec/VXLoudnessMeter.h"
#include "engine/codec/VXTranscoding.h"
#include "engine/codec/VXUtilCodec.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <algorithm>
#include <cmath>
#include <map>

struct VXAudioGain::Job {
    VXGainBlock block;
    qint64 passResult = 0;  // the last pass's end report
    std::shared_ptr<VXFilter> filter;
    std::map<int, VXLoudness> otherStreams;  // pass 1's figures of further audio streams
    VXLoudness input;  // pass 1's own figures of the main stream, where loudnorm's would be wrong
};

namespace {

using vxjob::shared;

qint64 progressOf(int64_t percent, bool secondPass)
{
    // Pass 1 fills the first half of the disc, pass 2 the second.
    const double half = double(percent) * 0.5;
    return qint64(secondPass ? half + 50.0 : half);
}

} // namespace

bool VXAudioGain::chooseTempOutFile()
{
    const QFileInfo name(outFileName());
    const QString path = VXTempDir::reserveFile(name.completeBaseName(), name.suffix());
    QMutexLocker locker(&m_lock);
    m_tempOutFile = path;
    return !path.isEmpty();
}

void VXAudioGain::runPass(Job &job, const std::shared_ptr<VXTranscoding> &transcoding, Pass pass)
{
    bool cancelled = false;
    {
        // Published before it runs, so a cancel always meets the pass; one
        // that came earlier is seen here through the flag, and the pass then
        // ends at once.
        QMutexLocker locker(&m_lock);
        m_transCoding = transcoding;
        cancelled = m_cancel.isCancelled();
    }
    if (cancelled)
        transcoding->cancelTranscoding();
    job.passResult = transcoding->transcodingHere([&](int32_t state, int64_t value) {
        if (state == VXTranscodingStateProgress && pass != Pass::Correction)
            deliver(2, progressOf(value, pass == Pass::Second), job.block);
    });
}

qint64 VXAudioGain::runOutputPass(Job &job, std::shared_ptr<VXTranscoding> transcoding, Pass pass, VXLoudness *output)
{
    runPass(job, transcoding, pass);
    const QString why = transcoding->failureReason();
    if (output)
        *output = transcoding->outputLoudness();
    transcoding.reset();
    releaseTransCoding();
    if (job.passResult == VXTranscodingCancelled)
        return -2;
    return job.passResult == VXTranscodingFailed ? fail(why) : 0;
}

void VXAudioGain::releaseTransCoding()
{
    std::shared_ptr<VXTranscoding> last;
    {
        QMutexLocker locker(&m_lock);
        last.swap(m_transCoding);
    }
    last.reset();  // outside the lock: the filters print their records now
}

qint64 VXAudioGain::fail(const QString &reason)
{
    QMutexLocker locker(&m_lock);
    m_result.reason = reason;
    return -1;
}

std::shared_ptr<VXFilter> VXAudioGain::makeLoudnessFilter() const
{
    auto filter = VXFilter::filterWithName(QString::fromLatin1(VXALoudnormName));
    filter->setValue(QVariant(loudnormValue()), QString::fromLatin1(kVXAIntegratedLoudnessTarget));
    filter->setValue(QVariant(jobSettings().truePeakCeiling), QString::fromLatin1(kVXATruePeakTarget));
    filter->setValue(QString::fromLatin1(jobSettings().measureWithLoudnorm ? VXMeterLoudnorm : VXMeterEbur128),
                     QString::fromLatin1(kVXAMeter));
    filter->setValue(QVariant(jobSettings().dualMono), QString::fromLatin1(kVXADualMono));
    return filter;
}

// Pass 1: the loudness filter prints its record as the transcoding is
// released, and the record is cut from what it printed. With the reference
// meter the pass only decodes; with loudnorm it also writes a one-pass
// normalised file, the fallback's output. False when the job must end.
bool VXAudioGain::runFirstPass(Job &job, QJsonObject *record, QString *reason, qint64 *end)
{
    QString why;
    auto pass1 = VXTranscoding::initWithInput(inputFile(), tempOutFile(), &why);
    if (!pass1) {
        *end = fail(why);
        return false;
    }
    job.filter->setValue(QString::fromLatin1(VXPrintFormatJSON), QString::fromLatin1(kVXPrintFormat));
    pass1->addAudioFilter(job.filter);
    pass1->setMeasuresOtherAudio();
    pass1->setMeasuresInput();
    runPass(job, pass1, Pass::First);
    why = pass1->failureReason();
    job.otherStreams = pass1->otherAudioLoudness();
    job.input = pass1->inputLoudness();
    pass1.reset();

    QByteArray log;
    {
        QMutexLocker capture(&shared().captureLock);
        const QString logFile = job.filter->logFile();
        job.filter->redirectStdErrToFile(logFile);
        releaseTransCoding();  // the filter prints its record as it is freed
        job.filter->cancelRedirectStdErr();
        if (job.passResult == VXTranscodingFailed || job.passResult == VXTranscodingCancelled) {
            *end = job.passResult == VXTranscodingFailed ? fail(why) : -2;
            return false;
        }
        QFile file(job.filter->logFile());
        if (file.open(QIODevice::ReadOnly))
            log = file.readAll();
    }
    {
        QMutexLocker locker(&shared().hookLock);
        if (shared().logHook)
            log = shared().logHook(log);
    }

    // The record is the one flat JSON object in the print-out; a "}" before
    // the "{" does not count, so the closing brace is looked for after it.
    *reason = QStringLiteral("Unknown");
    const VXRange open = rangeOfDataFind(log, QByteArrayLiteral("{"));
    if (open.location != VXNotFound) {
        const QByteArray rest = log.mid(open.location);
        const VXRange close = rangeOfDataFind(rest, QByteArrayLiteral("}"));
        const QByteArray bytes = close.location == VXNotFound ? QByteArray() : rest.left(close.location + close.length);
        if (!bytes.isEmpty()) {
            QJsonParseError error{};
            const QJsonDocument doc = QJsonDocument::fromJson(bytes, &error);
            if (error.error != QJsonParseError::NoError)
                *reason = error.errorString();
            else if (doc.isObject())
                *record = doc.object();
        }
    }
    return true;
}

// No usable record: loudnorm's own single pass is placed, once it is
// measured like any other result. The reference meter's pass 1 wrote
// nothing, so that pass runs now.
qint64 VXAudioGain::runOnePass(Job &job)
{
    QString why;
    if (!jobSettings().measureWithLoudnorm) {
        auto onePass = VXTranscoding::initWithInput(inputFile(), tempOutFile(), &why);
        if (!onePass)
            return fail(why);
        auto filter = makeLoudnessFilter();
        filter->setValue(QString::fromLatin1(VXMeterLoudnorm), QString::fromLatin1(kVXAMeter));
        filter->setValue(QString::fromLatin1(VXPrintFormatNone), QString::fromLatin1(kVXPrintFormat));
        onePass->addAudioFilter(filter);
        if (const qint64 r = runOutputPass(job, std::move(onePass), Pass::Second, nullptr))
            return r;
    }
    VXGainResult result;
    result.normalization = VXNormalizationName(VXNormalization::OnePass);
    VXLoudness loudness;
    if (!VXMeasureFile(tempOutFile(), jobSettings().measureFlags(), &loudness, &why))
        return fail(QStringLiteral("Cannot measure the result: %1").arg(why));
    result.outputI = loudness.integrated;
    result.outputTp = loudness.truePeak;
    result.outputLra = loudness.range;
    return verifyAndPlace(result, double(loudnormValue()));
}

qint64 VXAudioGain::runJob(const VXGainBlock &block)
{
    Job job;
    job.block = block;
    {
        QMutexLocker locker(&m_lock);
        m_measurement.clear();
        m_result = {};
    }
    if (m_cancel.isCancelled())
        return -2;
    if (qint64 end = 0; !resolveAlbum(&end))
        return end;
    if (jobSettings().tagsOnly)
        return runTagsOnly();
    if (!chooseTempOutFile())
        return fail(QStringLiteral("Cannot create a temporary file in %1 (it must be a writable folder of this user's, not a link)").arg(VXTempDir::rootPath()));
    const QString input = inputFile();
    const QString temp = tempOutFile();
    QString why;

    QJsonObject record;
    const std::optional<VXAlbumMember> album = albumMember();
    job.filter = makeLoudnessFilter();
    if (album) {
        // Measured with its album already: the gain is the album's.
        record = QJsonObject::fromVariantMap(VXMeasurementRecord(album->track));
        deliver(2, progressOf(100, false), block);
    } else {
        QString reason;
        if (qint64 end = 0; !runFirstPass(job, &record, &reason, &end))
            return end;
        if (record.isEmpty()) {
            VXLog(QStringLiteral("Waring: Can not using two pass gain(%1).").arg(reason));
            return runOnePass(job);
        }
    }
    // With the loudnorm meter: loudnorm weighs channels by index, which
    // misreads some layouts (2.1, 6.1, 7.1); for those, pass 1 also measured
    // the input with the meter that checks the result, and its figures stand in.
    if (!record.isEmpty() && job.input.measured()) {
        const QVariantMap ours = VXMeasurementRecord(job.input);
        for (const char *key : {"input_i", "input_lra", "input_thresh"})
            record[QLatin1String(key)] = QJsonValue::fromVariant(ours.value(QLatin1String(key)));
    }
    {
        QMutexLocker locker(&m_lock);
        m_measurement = record.toVariantMap();
    }

    bool numeric = false;
    const double measuredI = album ? album->album.integrated
                                   : record.value(QLatin1String("input_i")).toVariant().toDouble(&numeric);
    numeric = numeric || album;
    if (numeric && std::isfinite(measuredI) && std::fabs(measuredI - double(loudnormValue())) <= jobSettings().skipWithin) {
        // Already there: the original stays as it is, byte for byte, and
        // pass 1's output (if any) goes at once rather than with the cache.
        QFile::remove(temp);
        QMutexLocker locker(&m_lock);
        m_result.skipped = true;
        m_result.gainDb = 0.0;
        m_result.measuredI = measuredI;
        m_result.album = album ? album->name : QString();
        return 0;
    }

    // Each measured value goes on as the record spells it.
    const std::pair<const char *, const char *> measured[] = {
        {kVXAMeasuredIntegratedLoudness, "input_i"}, {kVXAMeasuredTruePeak, "input_tp"},
        {kVXAMeasuredLoudnessRange, "input_lra"},    {kVXAMeasuredThresh, "input_thresh"},
        {kVXAGainOffset, "target_offset"},
    };
    for (const auto &[attribute, key] : measured)
        job.filter->setValue(record.value(QLatin1String(key)).toVariant(), QString::fromLatin1(attribute));
    if (album) {
        // Planned from the album's figures, every track's gain is the same
        // number; its loudest peak decides the cap.
        job.filter->setValue(QVariant(album->album.integrated), QString::fromLatin1(kVXAMeasuredIntegratedLoudness));
        job.filter->setValue(QVariant(album->album.truePeak), QString::fromLatin1(kVXAMeasuredTruePeak));
    }
    job.filter->setValue(QVariant(true), QString::fromLatin1(kVXALinearGain));
    job.filter->setValue(QVariant(jobSettings().limitPeaks), QString::fromLatin1(kVXALimitPeaks));
    job.filter->setValue(QString::fromLatin1(VXPrintFormatNone), QString::fromLatin1(kVXPrintFormat));
    const std::optional<VXGainPlan> plan = job.filter->linearPlan();  // as first decided

    // Each further audio stream gets its own gain, by the same rules.
    std::map<int, std::shared_ptr<VXFilter>> streamFilters;
    for (const auto &[index, measuredStream] : job.otherStreams) {
        if (!std::isfinite(measuredStream.integrated))
            continue;  // silent: left as it is
        auto filter = makeLoudnessFilter();
        filter->setValue(QVariant(measuredStream.integrated), QString::fromLatin1(kVXAMeasuredIntegratedLoudness));
        filter->setValue(QVariant(measuredStream.truePeak), QString::fromLatin1(kVXAMeasuredTruePeak));
        filter->setValue(QVariant(measuredStream.range), QString::fromLatin1(kVXAMeasuredLoudnessRange));
        filter->setValue(QVariant(true), QString::fromLatin1(kVXALinearGain));
        filter->setValue(QVariant(jobSettings().limitPeaks), QString::fromLatin1(kVXALimitPeaks));
        filter->setValue(QString::fromLatin1(VXPrintFormatNone), QString::fromLatin1(kVXPrintFormat));
        streamFilters[index] = filter;
    }

    VXLoudness loudness;
    auto secondPass = [&](Pass pass) -> qint64 {
        auto pass2 = VXTranscoding::initWithInput(input, temp, &why);
        if (!pass2)
            return fail(why);
        pass2->addAudioFilter(job.filter);
        for (const auto &[index, filter] : streamFilters)
            pass2->addStreamFilter(index, filter);
        // The file as written, decoded again by the meter that measured the
        // input: what a player will hear. A limiter leaves a true peak only
        // a meter can tell; a gain moves the measured one by exactly its size.
        const bool limited = plan && plan->kind == VXNormalization::Limited;
        pass2->setMeasuresOutput((limited ? VXMeasureTruePeak : 0) | (jobSettings().measureFlags() & VXMeasureDualMono));
        return runOutputPass(job, std::move(pass2), pass, &loudness);
    };
    if (const qint64 r = secondPass(Pass::Second))
        return r;
    // Where loud peaks carry much of the loudness, limiting them costs some
    // of it, and a lossy encoder may drop some of a dense signal's energy
    // (loud white noise loses half a LU in 128 kb/s MP3): the gain is raised
    // by what is missing, a few times at most, while the ceiling allows. The
    // plan and the check use one meter, so what is missing is what the
    // processing lost, never a disagreement between meters. A plain gain
    // that misses by more than a codec loses is a fault to show, not to hide.
    const float target = loudnormValue();
    const QString targetKey = QString::fromLatin1(kVXAIntegratedLoudnessTarget);
    int corrections = 0;
    // How much of a raise reached the result last time: a limiter gives back
    // less than it is given, so the next raise is scaled up by that.
    double response = 1.0;
    double lastTarget = NAN, lastLoudness = NAN;
    // Not in an album: one track raised more than the others would upset
    // their balance.
    for (int round = 0; !album && plan && round < 3; ++round) {
        // A plain gain stays what the measurement says unless its result
        // would be refused.
        const bool limited = plan->kind == VXNormalization::Limited;
        const double missing = plan->expectedLoudness - loudness.integrated;
        if (!std::isfinite(missing) || std::fabs(missing) <= (limited ? 0.2 : 0.5))
            break;
        const QVariant current = job.filter->valueForAttribute(targetKey);
        if (std::isfinite(lastTarget) && std::fabs(double(current.toFloat()) - lastTarget) > 0.01)
            response = std::clamp((loudness.integrated - lastLoudness) / (double(current.toFloat()) - lastTarget), 0.25, 1.0);
        lastTarget = double(current.toFloat());
        lastLoudness = loudness.integrated;
        const double raised = double(current.toFloat()) + missing / response;
        if (limited ? raised - target > 12.0 : std::fabs(raised - target) > 2.0)
            break;
        const double gainBefore = job.filter->linearPlan().value_or(*plan).gainDb;
        job.filter->setValue(QVariant(float(raised)), targetKey);
        const std::optional<VXGainPlan> next = job.filter->linearPlan();
        if (!limited && (!next || std::fabs(next->gainDb - gainBefore) < 0.05)) {
            job.filter->setValue(current, targetKey);  // held by the ceiling: another pass would change nothing
            break;
        }
        ++corrections;
        if (const qint64 r = secondPass(Pass::Correction))
            return r;
    }

    VXGainResult result;
    result.outputI = loudness.integrated;
    result.outputLra = loudness.range;
    result.corrections = corrections;
    result.album = album ? album->name : QString();
    for (const auto &[index, filter] : streamFilters) {
        if (const auto streamPlan = filter->linearPlan())
            result.otherStreams.append({index, streamPlan->gainDb, VXNormalizationName(streamPlan->kind)});
    }
    if (!plan) {
        // Nothing loud enough to measure (digital silence): left as it is.
        result.gainDb = 0.0;
        result.normalization = VXNormalizationName(VXNormalization::Linear);
        return verifyAndPlace(result, NAN);
    }
    const VXGainPlan applied = job.filter->linearPlan().value_or(*plan);
    result.gainDb = applied.gainDb;
    result.normalization = VXNormalizationName(applied.kind);
    result.outputTp = plan->kind == VXNormalization::Limited
        ? loudness.truePeak
        : record.value(QLatin1String("input_tp")).toVariant().toDouble() + result.gainDb;
    if (album) {
        // Each track should move by the gain exactly; a limiter takes what
        // it must from the loud ones, so those are not held to it.
        const double expected = album->track.integrated + result.gainDb;
        return verifyAndPlace(result, plan->kind == VXNormalization::Limited ? NAN : expected);
    }
    return verifyAndPlace(result, plan->expectedLoudness);
}

void VXAudioGain::setAlbumMember(std::optional<VXAlbumMember> member)
{
    QMutexLocker locker(&m_lock);
    m_album = std::move(member);
}

std::optional<VXAlbumMember> VXAudioGain::albumMember() const
{
    QMutexLocker locker(&m_lock);
    return m_album;
}

// An output is kept only when it measures within half a LU of the level it
// should have reached; otherwise nothing is placed and the original stays.
qint64 VXAudioGain::verifyAndPlace(const VXGainResult &result, double expected)
{
    {
        QMutexLocker locker(&m_lock);
        m_result = result;
    }
    if (std::isfinite(expected)) {
        if (!std::isfinite(result.outputI))
            return fail(QStringLiteral("missed the target: the result measures silent"));
        if (std::fabs(result.outputI - expected) > 0.5)
            return fail(QStringLiteral("missed the target: reached %1 LUFS").arg(result.outputI, 0, 'f', 1));
    }
    return finishWithPlacement();
}

qint64 VXAudioGain::finishWithPlacement()
{
    ++shared().placing;
    const bool placed = moveTempFileToFinalOut(tempOutFile());
    --shared().placing;
    return placed ? 0 : -1;
}

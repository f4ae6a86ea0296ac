// The passes of a job: each one published to the item so that a cancel
// meets it, run on the job's thread, and let go; pass 1's record caught as
// its filter prints it; loudnorm's single pass when there is no record.
#include "engine/VXGainJob.h"
#include "engine/VXAudioGainShared.h"

#include "engine/VXMeasureCache.h"
#include "engine/codec/VXCodecConstants.h"
#include "engine/codec/VXFilter.h"
#include "engine/codec/VXLog.h"
#include "engine/codec/VXTranscoding.h"
#include "engine/codec/VXUtilCodec.h"

#include <QFile>
#include <QJsonDocument>

namespace {

using vxjob::shared;

qint64 progressOf(int64_t percent, bool secondPass)
{
    // Pass 1 fills the first half of the disc, pass 2 the second.
    const double half = double(percent) * 0.5;
    return qint64(secondPass ? half + 50.0 : half);
}

// The record is the one flat JSON object in the print-out; a "}" before
// the "{" does not count, so the closing brace is looked for after it.
VXGainJob::Caught recordIn(const QByteArray &log)
{
    VXGainJob::Caught caught{{}, QStringLiteral("Unknown")};
    const VXRange open = rangeOfDataFind(log, QByteArrayLiteral("{"));
    if (open.location == VXNotFound)
        return caught;
    const QByteArray rest = log.mid(open.location);
    const VXRange close = rangeOfDataFind(rest, QByteArrayLiteral("}"));
    const QByteArray bytes = close.location == VXNotFound ? QByteArray() : rest.left(close.location + close.length);
    if (bytes.isEmpty())
        return caught;
    QJsonParseError error{};
    const QJsonDocument doc = QJsonDocument::fromJson(bytes, &error);
    if (error.error != QJsonParseError::NoError)
        caught.unusable = error.errorString();
    // Without its level a record plans nothing: loudnorm's one pass does better.
    else if (doc.isObject() && !doc.object().contains(QLatin1String("input_i")))
        caught.unusable = QStringLiteral("no input_i");
    else if (doc.isObject())
        caught.record = doc.object();
    return caught;
}

} // namespace

void VXGainJob::report(qint64 progress) { m_item.sendMessage(VXGainRunning, progress, m_block); }

qint64 VXGainJob::runPass(const std::shared_ptr<VXTranscoding> &transcoding, Pass pass)
{
    bool cancelled = false;
    {
        // Published before it runs, so a cancel always meets the pass; one
        // that came earlier is seen here through the flag, and the pass then
        // ends at once.
        QMutexLocker locker(&m_item.m_lock);
        m_item.m_transCoding = transcoding;
        cancelled = m_item.m_cancel.isCancelled();
    }
    if (cancelled)
        transcoding->cancelTranscoding();
    return transcoding->transcodingHere([&](int32_t state, int64_t value) {
        if (state == VXTranscodingStateProgress && pass != Pass::Correction)
            report(progressOf(value, pass == Pass::Second));
    });
}

VXResult<> VXGainJob::runOutputPass(std::shared_ptr<VXTranscoding> transcoding, Pass pass, VXLoudness *output)
{
    const qint64 passResult = runPass(transcoding, pass);
    const QString why = transcoding->failureReason();
    if (output)
        *output = transcoding->outputLoudness();
    transcoding.reset();
    releaseTransCoding();
    if (passResult == VXTranscodingCancelled)
        return cancelled();
    if (passResult == VXTranscodingFailed)
        return VXError::because(why);
    return {};
}

void VXGainJob::releaseTransCoding()
{
    std::shared_ptr<VXTranscoding> last;
    {
        QMutexLocker locker(&m_item.m_lock);
        last.swap(m_item.m_transCoding);
    }
    last.reset();  // outside the lock: the filters print their records now
}

std::shared_ptr<VXFilter> VXGainJob::makeLoudnessFilter() const
{
    return VXLoudnessFilter(m_target, m_settings);
}

// Pass 1: the loudness filter prints its record as the transcoding is
// released, and the record is cut from what it printed. With the reference
// meter the pass only decodes; with loudnorm it also writes a one-pass
// normalised file, the fallback's output.
VXResult<VXGainJob::Caught> VXGainJob::firstPassRecord()
{
    QString why;
    auto pass1 = VXTranscoding::initWithInput(m_item.inputFile(), m_item.tempOutFile(), &why);
    if (!pass1)
        return VXError::because(why);
    m_measuringFilter = makeLoudnessFilter();
    m_measuringFilter->setValue(QString::fromLatin1(VXPrintFormatJSON), QString::fromLatin1(kVXPrintFormat));
    pass1->addAudioFilter(m_measuringFilter);
    pass1->setMeasuresOtherAudio();
    pass1->setMeasuresInput();
    const VXResult<QByteArray> log = runFirstPass(std::move(pass1));
    if (!log)
        return log.error();
    return recordIn(*log);
}

// With the reference meter pass 1 only measures, and a file measured before
// needs none: its kept figures make the record the pass would have printed,
// so the job and its report go on alike. One measured now leaves its
// figures for the next time.
VXResult<VXGainJob::Caught> VXGainJob::keptOrFirstPassRecord()
{
    std::optional<VXResult<Caught>> ran;
    const VXMeasureStep pass1 = [&](int) -> VXResult<vx::Measurement> {
        ran = firstPassRecord();
        if (!*ran)
            return ran->error();
        return vx::Measurement{m_firstPass, m_otherStreams};
    };
    const VXResult<VXMeasured> measured
        = VXMeasureWithCache(m_item.inputFile(), m_settings.measureFlags(), &m_item.m_cancel, {}, pass1);
    if (ran)
        return *ran;
    if (!measured)
        return measured.error();
    m_otherStreams = measured->others;
    report(50);
    return recordIn(makeLoudnessFilter()->measurementRecord(measured->loudness));
}

// Runs pass 1 and lets it go with its filter's print-out captured.
VXResult<QByteArray> VXGainJob::runFirstPass(std::shared_ptr<VXTranscoding> pass1)
{
    const qint64 passResult = runPass(pass1, Pass::First);
    const QString why = pass1->failureReason();
    m_firstPass = pass1->outputLoudness();
    m_otherStreams = pass1->otherAudioLoudness();
    m_input = pass1->inputLoudness();
    pass1.reset();  // the item's is the last reference: its release prints the record

    QByteArray log;
    {
        QMutexLocker capture(&shared().captureLock);
        const QString logFile = m_measuringFilter->logFile();
        m_measuringFilter->redirectStdErrToFile(logFile);
        releaseTransCoding();  // the filter prints its record as it is freed
        m_measuringFilter->cancelRedirectStdErr();
        if (passResult == VXTranscodingFailed)
            return VXError::because(why);
        if (passResult == VXTranscodingCancelled)
            return cancelled();
        QFile file(logFile);
        if (file.open(QIODevice::ReadOnly))
            log = file.readAll();
    }
    QMutexLocker locker(&shared().hookLock);
    return shared().logHook ? shared().logHook(log) : log;
}

// No usable record: loudnorm's own single pass is placed, once it is
// measured like any other result. The reference meter's pass 1 wrote
// nothing, so that pass runs now.
VXGainEnd VXGainJob::runOnePass()
{
    if (!m_settings.measureWithLoudnorm) {
        QString why;
        auto onePass = VXTranscoding::initWithInput(m_item.inputFile(), m_item.tempOutFile(), &why);
        if (!onePass)
            return end(VXError::because(why));
        auto filter = makeLoudnessFilter();
        filter->setValue(QString::fromLatin1(VXMeterLoudnorm), QString::fromLatin1(kVXAMeter));
        filter->setValue(QString::fromLatin1(VXPrintFormatNone), QString::fromLatin1(kVXPrintFormat));
        onePass->addAudioFilter(filter);
        if (const VXResult<> ran = runOutputPass(std::move(onePass), Pass::Second, nullptr); !ran)
            return end(ran.error());
    }
    VXGainResult result;
    result.normalization = VXNormalizationName(VXNormalization::OnePass);
    result.lossless = m_item.gainResult().lossless;  // why a lossless run came to this
    const VXResult<VXLoudness> loudness = VXMeasureFile(m_item.tempOutFile(), m_settings.measureFlags());
    if (!loudness)
        return end(VXError::because(QStringLiteral("Cannot measure the result: %1").arg(loudness.reason())));
    result.outputI = loudness->integrated;
    result.outputTp = loudness->truePeak;
    result.outputLra = loudness->range;
    return verifyAndPlace(result, double(m_target));
}

// A job's gain without re-encoding: written into the file's own gain fields
// by the codec layer (in a worker child), recorded in a tag so that it can
// be undone, the result measured like any other. A format with no such
// field is normalised the usual way, and the result says why.
#include "engine/VXGainJob.h"

#include "engine/VXLosslessTag.h"
#include "engine/VXReplayGain.h"
#include "engine/codec/VXCodecBackend.h"
#include "engine/codec/VXLossless.h"

#include <QFile>

namespace {

constexpr char kRestored[] = "restored";

bool exactKind(const QString &kind) { return kind == QLatin1String("opus"); }

} // namespace

VXResult<std::optional<VXGainJob::Normalised>> VXGainJob::normaliseLossless(const VXJobPlan &plan, QString *fallback)
{
    const VXLosslessPlan &l = *plan.lossless;
    const QString input = m_item.inputFile();
    if (!VXLosslessTaggable(input)) {
        *fallback = QStringLiteral("this format has no gain field to change");
        return std::optional<Normalised>();
    }
    vx::LosslessRequest request;
    request.input = input;
    request.output = m_item.tempOutFile();
    request.gainDb = l.gainDb;
    request.steps = l.steps;
    request.previous = VXReadLosslessRecord(input);
    // A gain moves the true peak by exactly its size: the meter need not find it.
    request.measureOutput = m_settings.measureFlags() & VXMeasureDualMono;
    const VXResult<vx::LosslessResult> done = vx::codecBackend().lossless(request, &m_item.m_cancel);
    if (!done) {
        if (VXIsCancelled(done.error()) || m_item.m_cancel.isCancelled())
            return cancelled();
        *fallback = done.reason();
        return std::optional<Normalised>();
    }
    if (const VXResult<> recorded = VXWriteLosslessRecord(request.output, done->record, m_settings.tagsOnly); !recorded)
        return recorded.error();

    Normalised n;
    VXGainResult &r = n.result;
    r.gainDb = done->appliedDb;
    r.normalization = exactKind(done->kind) ? QStringLiteral("lossless") : QStringLiteral("lossless-step");
    r.outputI = done->output.integrated;
    r.outputLra = done->output.range;
    r.outputTp = plan.inputTruePeak + done->appliedDb;
    r.album = plan.album;
    r.lossless.asked = true;
    r.lossless.steps = done->steps;
    r.lossless.offsetDb = done->appliedDb - l.gainDb;
    r.lossless.fields = done->fields;
    r.lossless.clamped = done->clamped;
    // Judged against the level the steps reach, not the target.
    n.expectedLoudness = l.baseLoudness + done->appliedDb;
    if (m_settings.tagsOnly) {
        // What is left to the target, for players that read the tags.
        VXLoudness track;
        track.integrated = r.outputI;
        track.truePeak = r.outputTp;
        VXLoudness album = plan.planned;
        album.integrated += done->appliedDb;
        album.truePeak += done->appliedDb;
        r.tags = VXReplayGainFor(track, plan.album.isEmpty() ? nullptr : &album);
        if (const VXResult<> written = VXWriteReplayGainTags(request.output, r.tags); !written)
            return written.error();
        r.tagged = true;
    }
    report(100);
    return std::optional<Normalised>(std::move(n));
}

void VXGainJob::noteFallback(const QString &why)
{
    QMutexLocker locker(&m_item.m_lock);
    m_item.m_result.lossless.asked = true;
    m_item.m_result.lossless.fallback = why;
}

// The fields put back as the record says, the record removed: the audio
// packets are then the original's, byte for byte.
VXGainEnd VXGainJob::undoLossless()
{
    const QString input = m_item.inputFile();
    const QString record = VXReadLosslessRecord(input);
    if (record.isEmpty()) {
        QMutexLocker locker(&m_item.m_lock);
        m_item.m_result.skipped = true;
        m_item.m_result.gainDb = 0.0;
        m_item.m_result.warning = QStringLiteral("no lossless gain is recorded in this file");
        return VXGainSucceeded;
    }
    if (!m_item.chooseTempOutFile())
        return end(VXError::because(QStringLiteral("Cannot create a temporary file")));
    report(50);
    vx::LosslessRequest request;
    request.input = input;
    request.output = m_item.tempOutFile();
    request.previous = record;
    request.undo = true;
    const VXResult<vx::LosslessResult> done = vx::codecBackend().lossless(request, &m_item.m_cancel);
    if (!done) {
        QFile::remove(request.output);
        if (VXIsCancelled(done.error()) || m_item.m_cancel.isCancelled())
            return VXGainCancelled;
        return end(done.error());
    }
    if (const VXResult<> removed = VXRemoveLosslessRecord(request.output, record); !removed) {
        QFile::remove(request.output);
        return end(removed.error());
    }
    {
        QMutexLocker locker(&m_item.m_lock);
        m_item.m_result.gainDb = done->appliedDb;
        m_item.m_result.normalization = QString::fromLatin1(kRestored);
        m_item.m_result.lossless.asked = true;
        m_item.m_result.lossless.restored = true;
        m_item.m_result.lossless.steps = done->steps;
    }
    report(100);
    return VXGainEnd(m_item.finishWithPlacement());
}

// Album mode and tags only: the parts of a job that take their figures from
// an album or write ReplayGain tags instead of audio.
#include "engine/VXAlbumBatch.h"
#include "engine/VXAnalysis.h"
#include "engine/VXAudioGain.h"
#include "engine/VXReplayGain.h"

void VXAudioGain::setAlbumBatch(std::shared_ptr<VXAlbumBatch> batch)
{
    QMutexLocker locker(&m_lock);
    m_albumBatch = std::move(batch);
    m_album.reset();  // the batch measures it afresh
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

VXResult<> VXAudioGain::resolveAlbum()
{
    std::shared_ptr<VXAlbumBatch> batch;
    {
        QMutexLocker locker(&m_lock);
        if (m_album || !m_albumBatch)
            return {};
        batch = m_albumBatch;
    }
    VXResult<VXAlbumMember> member = batch->member(inputFile(), &m_cancel);
    if (!member)
        return VXIsCancelled(member.error()) ? VXError::because({}, VXGainCancelled) : member.error();
    setAlbumMember(std::move(*member));
    return {};
}

qint64 VXAudioGain::runTagsOnly()
{
    const std::optional<VXAlbumMember> album = albumMember();
    VXLoudness track;
    if (album) {
        track = album->track;
    } else {
        const VXResult<VXLoudness> measured = VXMeasureFile(inputFile(), jobSettings().measureFlags(), &m_cancel);
        if (!measured)
            return m_cancel.isCancelled() ? VXGainCancelled : fail(measured.reason());
        track = *measured;
    }
    {
        QMutexLocker locker(&m_lock);
        m_measurement = VXMeasurementRecord(track);
        m_measurement.remove(QStringLiteral("target_offset"));
    }
    if (m_cancel.isCancelled())
        return VXGainCancelled;
    const VXReplayGain gains = VXReplayGainFor(track, album ? &album->album : nullptr);
    // Nothing left to cancel from here: the tagged copy replaces the file
    // in one step, or not at all.
    const VXPlacement::Result placed
        = VXTagFile(inputFile(), replaceOriginalFile() ? QString() : outFolder(), gains,
                    jobSettings().preserveModificationTime, journalHook());
    if (!placed)
        return fail(placed.reason());
    {
        QMutexLocker locker(&m_lock);
        m_result.tagged = true;
        m_result.tags = gains;
        m_result.gainDb = gains.trackGainDb;
        m_result.album = album ? album->name : QString();
        m_result.warning = placed->warning;
    }
    setOutPathFileFromJob(placed->path);
    return VXGainSucceeded;
}

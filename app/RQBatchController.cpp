#include "app/RQBatchController.h"

#include "app/RQBatchJournal.h"
#include "app/RQDesktopServices.h"
#include "engine/VXAlbumBatch.h"
#include "engine/VXGainState.h"
#include "engine/VXJournal.h"
#include "engine/VXMainThread.h"
#include "engine/codec/VXCodecConstants.h"

#include <QWidget>

RQBatchController::RQBatchController(QObject *parent) : QObject(parent)
{
    m_notify = [](const QString &summary, const QString &body) { RQDesktopServices::notify(summary, body); };
    m_steady.start();
}

// A batch still under way as the window goes stays in its journal: its
// jobs are being cancelled, and what they did not finish is offered again.
RQBatchController::~RQBatchController() = default;

void RQBatchController::setFace(Face face)
{
    if (m_face == face)
        return;
    m_face = face;
    emit faceChanged();
}

bool RQBatchController::isEligible(const VXAudioGain &item)
{
    return item.state() == VXGainIdle || (item.state() == VXGainFinished && item.retCode() == VXGainCancelled);
}

qint64 RQBatchController::now() const
{
    return m_clock ? m_clock() : m_steady.elapsed();
}

double RQBatchController::fraction() const
{
    if (m_audioTotal > 0)
        return qBound(0.0, m_audioDone / m_audioTotal, 1.0);
    return m_batch.isEmpty() ? 0.0 : double(m_ended) / double(m_batch.size());
}

bool RQBatchController::start(const QList<VXAudioGainPtr> &chosen, const VXJobSettings &settings,
                              const QString &folder, bool inPlace)
{
    // Jobs added while others run join their batch.
    const bool batchRunning = m_running > 0;
    if (!batchRunning) {
        m_batch.clear();
        m_ended = m_succeeded = m_failed = 0;
        m_audioTotal = m_audioDone = 0;
        m_batchStart = now();
        m_eta.start(m_batchStart, 0);
        m_lastProgress = -1;
    }
    VXJobSettings copy = settings;
    copy.preserveModificationTime = inPlace && settings.preserveModificationTime;
    QList<VXAudioGainPtr> items;
    for (const VXAudioGainPtr &item : chosen) {
        if (isEligible(*item))
            items.append(item);
    }
    // The albums of this press are its own files, grouped by the first job to run.
    VXAlbumBatch::prepareJobs(items, copy);
    // A file with a journal of its own (a hot folder's) is resumed by it,
    // not offered back with the batch.
    QList<VXAudioGainPtr> journaled;
    std::vector<char> inBatchJournal;
    for (const VXAudioGainPtr &item : std::as_const(items)) {
        const std::shared_ptr<VXJournal> own = item->journal();
        inBatchJournal.push_back(!own || RQBatchJournal::isBatchJournal(*own));
        if (inBatchJournal.back())
            journaled.append(item);
    }
    if (!journaled.isEmpty()) {
        if (!batchRunning || !m_journal)
            m_journal = RQBatchJournal::begin(journaled);
        else
            RQBatchJournal::add(*m_journal, journaled);
    }
    for (qsizetype i = 0; i < items.size(); ++i) {
        const VXAudioGainPtr &item = items[i];
        item->setReplaceOriginalFile(inPlace);
        if (!item->replaceOriginalFile())
            item->setOutFolder(folder);
        if (inBatchJournal[size_t(i)])
            item->setJournal(m_journal);
        join(item);
        m_pending.push_back(item);
    }
    if (items.isEmpty())
        return false;
    // The first turn's share now: the press shows its jobs at once.
    startPending();
    emit progressChanged();
    return true;
}

void RQBatchController::startPending()
{
    // The application is going away: what has not started stays so.
    if (VXMainThread::isShutDown())
        return;
    const QPointer<RQBatchController> self(this);
    for (int started = 0; started < kStartsPerTurn && !m_pending.empty();) {
        const VXAudioGainPtr item = std::move(m_pending.front());
        m_pending.pop_front();
        const auto entry = m_batch.find(item.get());
        if (entry == m_batch.end() || !entry->pending)
            continue;
        entry->pending = false;
        ++started;
        const VXAudioGain *key = item.get();
        item->gainWithBlock([self, key, weak = std::weak_ptr<VXAudioGain>(item)](qint32 state, qint64 retCode) {
            if (!self)
                return;
            // Progress shows in the row itself; only an end can change more.
            if (state == VXGainFinished)
                emit self->jobEnded(weak.lock());
            if (self)
                self->reported(key, state, retCode);
        });
    }
    if (m_pending.empty() || m_startQueued)
        return;
    m_startQueued = true;
    QMetaObject::invokeMethod(
        this,
        [this] {
            m_startQueued = false;
            startPending();
        },
        Qt::QueuedConnection);
}

void RQBatchController::cancel(const QList<VXAudioGainPtr> &items)
{
    for (const VXAudioGainPtr &item : items) {
        if (isPending(item.get()))
            leave(item.get());
        else if (item->isRunning())
            item->cancelGain();
    }
}

bool RQBatchController::isPending(const VXAudioGain *item) const
{
    const auto entry = m_batch.constFind(item);
    return entry != m_batch.constEnd() && entry->pending;
}

void RQBatchController::leave(const VXAudioGain *item)
{
    // Its job never started: the batch is as if it had never been pressed.
    const auto entry = m_batch.find(item);
    m_audioTotal -= entry->seconds;
    m_eta.addWork(-entry->seconds);
    m_batch.erase(entry);
    if (--m_running == 0)
        endBatch();
    else
        emit progressChanged();
}

void RQBatchController::join(const VXAudioGainPtr &item)
{
    auto entry = m_batch.find(item.get());
    if (entry == m_batch.end()) {
        const double seconds = double(item->duration()) / double(VXTimebase);
        entry = m_batch.insert(item.get(), Entry{item, seconds});
        m_audioTotal += seconds;
        m_eta.addWork(seconds);
    } else {
        // Cancelled earlier in this batch and started again: it counts afresh.
        tally(*entry, -1);
        if (!entry->ended)
            --m_running;
        entry->share = 0;
        entry->ended = false;
        entry->end = 0;
    }
    entry->pending = true;
    ++m_running;
}

void RQBatchController::tally(Entry &entry, int sign)
{
    m_audioDone += sign * entry.share * entry.seconds;
    if (!entry.ended)
        return;
    m_ended += sign;
    m_succeeded += entry.end == VXGainSucceeded ? sign : 0;
    m_failed += entry.end == VXGainFailed ? sign : 0;
}

void RQBatchController::reported(const VXAudioGain *item, qint32 state, qint64 retCode)
{
    const auto entry = m_batch.find(item);
    if (entry == m_batch.end() || entry->ended || (state != VXGainRunning && state != VXGainFinished))
        return;
    tally(*entry, -1);
    if (state == VXGainFinished) {
        entry->ended = true;
        entry->end = retCode;
        entry->share = 1;
    } else {
        entry->share = double(qBound(qint64(0), retCode, qint64(100))) / 100.0;
    }
    tally(*entry, +1);
    if (state == VXGainFinished && --m_running == 0) {
        endBatch();
        return;
    }
    // A percent of one file, or one short file's end, is too fine to show
    // on its own: ten thousand short files end within minutes.
    const qint64 t = now();
    if (m_lastProgress >= 0 && t - m_lastProgress < kProgressEveryMsecs)
        return;
    m_lastProgress = t;
    m_eta.sample(t, m_audioDone);
    RQDesktopServices::setLauncherProgress(fraction(), true);
    emit progressChanged();
}

void RQBatchController::endBatch()
{
    RQDesktopServices::setLauncherProgress(0, false);
    RQBatchJournal::finish(std::move(m_journal));
    // A short batch is watched; a long one may have been left behind another window.
    if (now() - m_batchStart > kNotifyAfterMsecs && m_window && !m_window->isActiveWindow() && m_notify) {
        m_notify(tr("Gain finished"), m_failed == 0 ? tr("%n file(s) succeeded.", nullptr, m_succeeded)
                                                    : tr("%n file(s) succeeded, %1 failed.", nullptr, m_succeeded)
                                                          .arg(m_failed));
    }
    m_batch.clear();
    m_pending.clear();
    m_ended = m_succeeded = m_failed = 0;
    m_audioTotal = m_audioDone = 0;
    emit progressChanged();
}

#include "app/RQBatchController.h"

#include "app/RQBatchJournal.h"
#include "app/RQDesktopServices.h"
#include "engine/VXAlbumBatch.h"
#include "engine/VXGainState.h"

#include <QWidget>

RQBatchController::RQBatchController(QObject *parent) : QObject(parent)
{
    m_notify = [](const QString &summary, const QString &body) { RQDesktopServices::notify(summary, body); };
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

bool RQBatchController::start(const QList<VXAudioGainPtr> &chosen, const VXJobSettings &settings,
                              const QString &folder, bool inPlace)
{
    // Jobs added while others run join their batch.
    bool batchRunning = false;
    for (const VXAudioGainPtr &item : std::as_const(m_batch))
        batchRunning = batchRunning || item->isRunning();
    if (!batchRunning) {
        m_batch.clear();
        m_batchClock.start();
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
    if (!items.isEmpty()) {
        if (!batchRunning || !m_journal)
            m_journal = RQBatchJournal::begin(items);
        else
            RQBatchJournal::add(*m_journal, items);
    }
    const QPointer<RQBatchController> self(this);
    for (const VXAudioGainPtr &item : std::as_const(items)) {
        item->setReplaceOriginalFile(inPlace);
        if (!item->replaceOriginalFile())
            item->setOutFolder(folder);
        item->setJournal(m_journal);
        m_batch.append(item);
        item->gainWithBlock([self, weak = std::weak_ptr<VXAudioGain>(item)](qint32 state, qint64) {
            if (!self)
                return;
            // Progress shows in the row itself; only an end can change more.
            if (state == VXGainFinished)
                emit self->jobEnded(weak.lock());
            if (self)
                self->batchReported(state);
        });
    }
    return !items.isEmpty();
}

void RQBatchController::batchReported(qint32 state)
{
    // A percent of one file is too fine to send on to the desktop.
    if (state == VXGainRunning && m_progressClock.isValid() && m_progressClock.elapsed() < 250)
        return;
    m_progressClock.start();
    qint64 done = 0;
    int succeeded = 0, failed = 0;
    bool running = false;
    for (const VXAudioGainPtr &item : std::as_const(m_batch)) {
        running = running || item->isRunning();
        if (item->state() == VXGainFinished) {
            done += 100;
            succeeded += item->retCode() == VXGainSucceeded;
            failed += item->retCode() == VXGainFailed;
        } else if (item->state() == VXGainRunning) {
            done += qBound(qint64(0), item->retCode(), qint64(100));
        }
    }
    if (running) {
        RQDesktopServices::setLauncherProgress(double(done) / (100.0 * qMax(1, int(m_batch.size()))), true);
        return;
    }
    RQDesktopServices::setLauncherProgress(0, false);
    RQBatchJournal::finish(std::move(m_journal));
    // A short batch is watched; a long one may have been left behind another window.
    if (m_batchClock.isValid() && m_batchClock.elapsed() > kNotifyAfterMsecs && m_window
        && !m_window->isActiveWindow() && m_notify) {
        m_notify(tr("Gain finished"), failed == 0 ? tr("%n file(s) succeeded.", nullptr, succeeded)
                                                  : tr("%n file(s) succeeded, %1 failed.", nullptr, succeeded)
                                                        .arg(failed));
    }
    m_batch.clear();
    m_batchClock.invalidate();
}

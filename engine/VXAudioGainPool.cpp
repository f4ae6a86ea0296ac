// The job's threading: the pool it runs on, its start and end reports, its
// cancel, and the shutdown that waits for every job.
#include "engine/VXAudioGain.h"
#include "engine/VXAudioGainShared.h"
#include "engine/VXGainJob.h"

#include "engine/VXMainThread.h"
#include "engine/codec/VXTranscoding.h"

#include <QFile>
#include <QThreadPool>
#include <algorithm>

using vxjob::shared;

vxjob::Shared &vxjob::shared()
{
    static Shared *instance = new Shared;
    return *instance;
}

QThreadPool *VXAudioGain::jobPool()
{
    // A job's thread runs its passes itself, waiting on its worker child (or
    // decoding, when codec work stays in process), so the bound limits how
    // many files are decoded at once: one per core is the best throughput,
    // and a job waiting for a thread is already reported as started and can
    // be cancelled. Never destroyed: a static pool's destructor would wait
    // for jobs after the application object is gone.
    static QThreadPool *pool = [] {
        auto *p = new QThreadPool;
        p->setMaxThreadCount(std::max(2, QThread::idealThreadCount()));
        return p;
    }();
    return pool;
}

void VXAudioGain::setCapturedLogHookForTesting(LogHook hook)
{
    QMutexLocker locker(&shared().hookLock);
    shared().logHook = std::move(hook);
}

void VXAudioGain::gainWithBlock(VXGainBlock block)
{
    {
        QMutexLocker locker(&m_lock);
        m_cancel.reset();  // a restart must not inherit the last cancel
    }
    auto self = shared_from_this();
    {
        QMutexLocker locker(&shared().jobsLock);
        shared().jobs.insert(this, self);
    }
    const bool reported = VXMainThread::isMainThread() && deliver(VXGainStarted, 0, block);
    VXStartOnPool(jobPool(), [self, block, reported]() mutable {
        const qint64 result = reported || self->deliver(VXGainStarted, 0, block) ? VXGainJob(*self, block).run() : VXGainCancelled;
        if (result == VXGainSucceeded)
            self->journalDone();
        if (result != VXGainSucceeded) {
            // The file stays until the cache is cleaned, but not its size: a
            // disk filled by one file must not fail the files after it.
            const QString temp = self->tempOutFile();
            if (!temp.isEmpty())
                QFile::resize(temp, 0);
        }
        {
            QMutexLocker locker(&shared().jobsLock);
            shared().jobs.remove(self.get());
        }
        // The end report also hands the job's references over to the main
        // thread: once it has run, the application may quit at any moment,
        // and this thread must not be the one to release the item then.
        VXAudioGain *item = self.get();
        VXRunOnMainThread([&] {
            item->applyReport(VXGainFinished, result, block);
            block = nullptr;
            self.reset();
        });
    });
}

void VXAudioGain::cancelGain()
{
    // Cancelled under the lock so that no copy of the transcoding escapes it:
    // the job's release must drop the last reference, since that is when the
    // measurement record is printed into the capture.
    QMutexLocker locker(&m_lock);
    m_cancel.cancel();
    if (m_transCoding)
        m_transCoding->cancelTranscoding();
}

bool VXAudioGain::cancelAllJobsAndWait(int msecs)
{
    VXMainThread::shutdown();
    QList<std::shared_ptr<VXAudioGain>> running;
    {
        QMutexLocker locker(&shared().jobsLock);
        for (const auto &weak : std::as_const(shared().jobs)) {
            if (auto item = weak.lock())
                running.append(item);
        }
    }
    for (const auto &item : std::as_const(running))
        item->cancelGain();
    running.clear();
    bool done = jobPool()->waitForDone(msecs);
    // A placement half done would leave a file half moved (a copy across
    // file systems can take a while): those are waited for, however long.
    while (!done && shared().placing.load() > 0)
        done = jobPool()->waitForDone(100);
    return done;
}

void VXAudioGain::sendMessage(qint32 state, qint64 retCode, const VXGainBlock &block)
{
    deliver(state, retCode, block);
}

void VXAudioGain::applyReport(qint32 state, qint64 retCode, const VXGainBlock &block)
{
    setState(state);
    setRetCode(retCode);
    if (block)
        block(this->state(), this->retCode());
}

bool VXAudioGain::deliver(qint32 state, qint64 retCode, const VXGainBlock &block)
{
    if (VXRunOnMainThread([&] { applyReport(state, retCode, block); }))
        return true;
    // The application is going away: stop at the next occasion.
    cancelGain();
    return false;
}


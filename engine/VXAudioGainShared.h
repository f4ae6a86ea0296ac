#pragma once

// What every job of the process shares (the job runner, VXAudioGainPool.cpp
// and the placement only).

#include "engine/VXAudioGain.h"

#include <QHash>
#include <QMutex>
#include <atomic>
#include <memory>

namespace vxjob {

struct Shared {
    // The redirect of a filter's print-out may be process-wide, so one
    // capture at a time: from the redirect to the end of reading the log.
    QMutex captureLock;
    QMutex hookLock;
    VXAudioGain::LogHook logHook;
    // Items whose job has been submitted and has not ended, for shutdown.
    QMutex jobsLock;
    QHash<VXAudioGain *, std::weak_ptr<VXAudioGain>> jobs;
    // Jobs putting their result in place right now: a cancel does not stop
    // that, and shutdown waits for them.
    std::atomic<int> placing{0};
};

// Never destroyed: a job thread may still be leaving these when an
// application that has seen its last report returns from main().
Shared &shared();

} // namespace vxjob

#pragma once

// A cancel that reaches blocked work at once: a flag for loops that look at
// it between steps, and the stoppers of the works under way (a worker child
// to kill, a wait to wake), called by cancel() on the cancelling thread. One
// cancel may stop several works at a time (a batch's files).

#include "engine/codec/VXError.h"

#include <atomic>
#include <functional>
#include <list>
#include <mutex>

class VXCancel {
    using Stoppers = std::list<std::function<void()>>;

public:
    // Keeps its stopper installed until destroyed. Once the destructor has
    // returned, the stopper is neither running nor called again, so it may
    // refer to the work's locals.
    class Stopper {
    public:
        Stopper() = default;
        Stopper(Stopper &&other) noexcept;
        Stopper &operator=(Stopper &&other) noexcept;
        ~Stopper();

    private:
        friend class VXCancel;
        Stopper(const VXCancel *cancel, Stoppers::iterator it) : m_cancel(cancel), m_it(it) {}
        void release();
        const VXCancel *m_cancel = nullptr;
        Stoppers::iterator m_it;
    };

    VXCancel() = default;
    VXCancel(const VXCancel &) = delete;
    VXCancel &operator=(const VXCancel &) = delete;

    // From any thread, as often as wanted: sets the flag and stops every
    // work under way.
    void cancel();
    bool isCancelled() const { return m_cancelled.load(); }
    // For a new run (a job started again); stoppers already installed stay.
    void reset() { m_cancelled.store(false); }
    // Installs stop for the work under way: a cancel calls it, or it runs
    // here at once when the cancel has come already. It must not use this
    // cancel. A work that is only given a cancel can listen to it, hence const.
    [[nodiscard]] Stopper onCancel(std::function<void()> stop) const;
    // The same for an optional cancel: no stopper without one.
    [[nodiscard]] static Stopper onCancel(const VXCancel *cancel, std::function<void()> stop);

private:
    std::atomic<bool> m_cancelled{false};
    // Held while stoppers run, which is what lets a Stopper's destructor
    // promise that its stopper has finished.
    mutable std::mutex m_lock;
    mutable Stoppers m_stoppers;
};

// The error of a work that its cancel stopped ("cancelled"), and the test
// for it: a cancel is no failure to report.
VXError VXCancelledError();
bool VXIsCancelled(const VXError &error);

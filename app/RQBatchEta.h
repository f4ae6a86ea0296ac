#pragma once

#include <QtGlobal>

// How long a batch has left, from how much audio it gets through per wall
// second. Fed the audio seconds done so far at moments of the caller's clock;
// the rate is smoothed over about kTimeConstantMsecs, so that one long file
// or a burst of short ones does not swing the estimate. A plain value: the
// caller owns the clock, which keeps it testable without waiting.
class RQBatchEta {
public:
    // Before this much of a batch has run, or this share of its audio is
    // done, the first files' start-up would dominate any estimate.
    static constexpr qint64 kWarmUpMsecs = 5000;
    static constexpr double kWarmUpShare = 0.02;
    // Rates are taken over windows at least this long.
    static constexpr qint64 kWindowMsecs = 1000;
    static constexpr qint64 kTimeConstantMsecs = 20000;

    // A new batch of totalSeconds of audio, started at nowMsecs.
    void start(qint64 nowMsecs, double totalSeconds);
    // More audio joined the batch while it runs.
    void addWork(double seconds) { m_total += seconds; }
    // doneSeconds of the batch's audio are done at nowMsecs.
    void sample(qint64 nowMsecs, double doneSeconds);

    // Audio seconds per wall second, smoothed; 0 before the first window.
    double rate() const { return m_rate; }
    // Wall seconds left, or a negative number while an estimate would mean
    // nothing yet (warming up, or no audio done).
    double secondsLeft() const;

private:
    qint64 m_start = 0;
    double m_total = 0;
    double m_done = 0;
    qint64 m_windowStart = 0;
    double m_windowDone = 0;
    qint64 m_now = 0;
    double m_rate = 0;
};

#include "app/RQBatchEta.h"

#include <algorithm>
#include <cmath>

void RQBatchEta::start(qint64 nowMsecs, double totalSeconds)
{
    *this = RQBatchEta();
    m_start = m_windowStart = m_now = nowMsecs;
    m_total = totalSeconds;
}

void RQBatchEta::sample(qint64 nowMsecs, double doneSeconds)
{
    m_now = nowMsecs;
    m_done = doneSeconds;
    const qint64 span = nowMsecs - m_windowStart;
    if (span < kWindowMsecs)
        return;
    const double windowRate = (doneSeconds - m_windowDone) * 1000.0 / double(span);
    if (m_rate <= 0) {
        // The first rate is the batch's average so far: one window alone may
        // have seen no file end at all.
        const qint64 elapsed = nowMsecs - m_start;
        m_rate = elapsed > 0 ? doneSeconds * 1000.0 / double(elapsed) : 0;
    } else {
        // An exponential average over time, whatever the windows' lengths.
        const double weight = 1.0 - std::exp(-double(span) / double(kTimeConstantMsecs));
        m_rate += weight * (std::max(0.0, windowRate) - m_rate);
    }
    m_windowStart = nowMsecs;
    m_windowDone = doneSeconds;
}

double RQBatchEta::secondsLeft() const
{
    if (m_now - m_start < kWarmUpMsecs || m_done <= 0 || m_done < kWarmUpShare * m_total || m_rate <= 0)
        return -1;
    return std::max(0.0, m_total - m_done) / m_rate;
}

#pragma once

// Entries made up for the cache's tests, the same in the test and in its
// helper process: entry i of a tag, and the figures it holds.

#include "engine/VXMeasureCache.h"

namespace cachetest {

// Uses another database for as long as it lives, then the one before.
class UseCache {
public:
    explicit UseCache(const QString &path) : m_before(VXMeasureCache::path())
    {
        VXMeasureCache::configure({VXMeasureCache::Location::File, path});
    }
    ~UseCache()
    {
        VXMeasureCache::configure(m_before.isEmpty() ? VXMeasureCache::Location{VXMeasureCache::Location::Off, {}}
                                                     : VXMeasureCache::Location{VXMeasureCache::Location::File, m_before});
    }
    UseCache(const UseCache &) = delete;
    UseCache &operator=(const UseCache &) = delete;

private:
    QString m_before;
};

inline VXMeasureCache::Key key(qint64 tag, int i)
{
    VXMeasureCache::Key k;
    k.device = tag;
    k.inode = i;
    k.size = 1000 + i;
    k.modifiedNs = 1'700'000'000'000'000'000 + i;
    k.meter = VXMeterIdentity(false);
    return k;
}

// Four minutes of steps, as a track would give.
inline vx::Measurement figures(int i)
{
    vx::Measurement m;
    m.loudness.integrated = -20.0 - i * 0.01;
    m.loudness.truePeak = -1.5;
    m.loudness.range = 6.25;
    m.loudness.threshold = -30.0 - i * 0.01;
    m.loudness.maxShortTerm = -12.0;
    m.loudness.maxMomentary = -9.0;
    for (int s = 0; s < 2400; ++s)
        m.loudness.steps.push_back(qint16(-2300 + (s * 37 + i) % 900));
    return m;
}

} // namespace cachetest

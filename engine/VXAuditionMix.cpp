#include "engine/VXAuditionMix.h"

#include <algorithm>
#include <limits>

VXAuditionMix::VXAuditionMix(int channels, int fadeFrames)
    : m_channels(std::max(channels, 1)), m_fade(std::max(fadeFrames, 1))
{
}

void VXAuditionMix::replace(std::unique_ptr<VXAuditionStream> a, std::unique_ptr<VXAuditionStream> b,
                            qint64 startFrame, Start start, float level)
{
    auto pair = std::make_unique<Pair>();
    pair->a = std::move(a);
    pair->b = std::move(b);
    pair->position = startFrame;
    pair->follows = start == Follow;
    pair->level = level;
    pair->shareB = m_side == B && pair->b ? 1.0f : 0.0f;
    m_next = std::move(pair);
}

void VXAuditionMix::clear()
{
    m_heard.reset();
    m_incoming.reset();
    m_next.reset();
}

qsizetype VXAuditionMix::ready(const Pair &pair)
{
    qsizetype frames = std::numeric_limits<qsizetype>::max();
    bool live = false;
    for (const VXAuditionStream *s : {pair.a.get(), pair.b.get()}) {
        if (!s)
            continue;
        // Asked in this order: once finished, nothing more arrives, so an
        // empty buffer then is the end. An ended side is silence from there
        // on, and holds nothing up.
        const bool finished = s->finished();
        const qsizetype available = s->available();
        if (available == 0 && finished)
            continue;
        live = true;
        frames = std::min(frames, available);
    }
    return live ? frames : -1;
}

void VXAuditionMix::readPair(Pair &pair, qsizetype n, float *out)
{
    const size_t samples = size_t(n) * size_t(m_channels);
    auto fill = [&](VXAuditionStream *s, std::vector<float> &buffer) {
        buffer.assign(samples, 0.0f);
        if (s)
            s->read(buffer.data(), n);
    };
    fill(pair.a.get(), m_a);
    if (pair.b)
        fill(pair.b.get(), m_b);
    const float target = m_side == B && pair.b ? 1.0f : 0.0f;
    const float step = 1.0f / float(m_fade);
    for (qsizetype i = 0; i < n; ++i) {
        // A switch is a linear cross-fade: the sides are the same music at
        // nearly the same level, so their sum keeps its level throughout.
        pair.shareB = pair.shareB < target ? std::min(target, pair.shareB + step) : std::max(target, pair.shareB - step);
        const float wa = pair.level * (1.0f - pair.shareB);
        const float wb = pair.level * pair.shareB;
        for (int c = 0; c < m_channels; ++c) {
            const size_t k = size_t(i) * size_t(m_channels) + size_t(c);
            out[k] = wa * m_a[k] + (pair.b ? wb * m_b[k] : 0.0f);
        }
    }
    pair.position += n;
}

void VXAuditionMix::startNextIfReady()
{
    if (!m_next || m_incoming)
        return;
    // The first pair fades in from silence: it may start mid-file.
    if (!m_heard)
        m_heard = std::make_unique<Pair>();
    Pair &next = *m_next;
    const bool heardEnded = ready(*m_heard) < 0;
    // A pair that follows catches up with the one heard first: what it made
    // while it started has been heard already.
    if (next.follows && !heardEnded) {
        const qsizetype behind = qsizetype(m_heard->position - next.position);
        const qsizetype r = ready(next);
        if (behind > 0 && r > 0) {
            const qsizetype skip = std::min(behind, r);
            m_other.resize(size_t(skip) * size_t(m_channels));
            readPair(next, skip, m_other.data());
        }
        if (m_heard->position > next.position && ready(next) >= 0)
            return;
    }
    const qsizetype r = ready(next);
    if (r >= m_fade || r < 0 || (heardEnded && r > 0)) {
        m_incoming = std::move(m_next);
        m_crossed = 0;
    }
}

qsizetype VXAuditionMix::mixFade(float *out, qsizetype frames)
{
    const qsizetype fromHeard = ready(*m_heard);
    const qsizetype fromIncoming = ready(*m_incoming);
    qsizetype n = std::min<qsizetype>(frames, m_fade - m_crossed);
    // An ended pair is silence, and holds nothing up.
    if (fromHeard >= 0)
        n = std::min(n, fromHeard);
    if (fromIncoming >= 0)
        n = std::min(n, fromIncoming);
    if (n <= 0)
        return 0;
    const size_t samples = size_t(n) * size_t(m_channels);
    std::fill_n(out, samples, 0.0f);
    if (fromHeard >= 0)
        readPair(*m_heard, n, out);
    m_other.assign(samples, 0.0f);
    if (fromIncoming >= 0)
        readPair(*m_incoming, n, m_other.data());
    for (qsizetype i = 0; i < n; ++i) {
        const float in = float(m_crossed + i + 1) / float(m_fade);
        for (int c = 0; c < m_channels; ++c) {
            const size_t k = size_t(i) * size_t(m_channels) + size_t(c);
            out[k] = out[k] * (1.0f - in) + m_other[k] * in;
        }
    }
    m_crossed += int(n);
    if (m_crossed >= m_fade) {
        m_heard = std::move(m_incoming);
        m_crossed = 0;
    }
    return n;
}

qsizetype VXAuditionMix::mix(float *out, qsizetype frames)
{
    qsizetype produced = 0;
    while (produced < frames) {
        startNextIfReady();
        float *to = out + size_t(produced) * size_t(m_channels);
        qsizetype n = 0;
        if (m_incoming) {
            n = mixFade(to, frames - produced);
        } else if (m_heard) {
            n = std::min(ready(*m_heard), frames - produced);
            if (n > 0)
                readPair(*m_heard, n, to);
        }
        if (n <= 0)
            break;
        produced += n;
    }
    return produced;
}

bool VXAuditionMix::atEnd() const
{
    return !m_next && !m_incoming && (!m_heard || ready(*m_heard) < 0);
}

qint64 VXAuditionMix::position() const
{
    if (m_next && !m_next->follows)
        return m_next->position;
    if (m_incoming)
        return m_incoming->position;
    return m_heard ? m_heard->position : 0;
}

QString VXAuditionMix::failure(Side side) const
{
    for (const Pair *pair : {m_heard.get(), m_incoming.get(), m_next.get()}) {
        const VXAuditionStream *s = !pair ? nullptr : side == A ? pair->a.get() : pair->b.get();
        if (s && !s->failure().isEmpty())
            return s->failure();
    }
    return {};
}

#pragma once

// What the listener hears of one file: the original (A) and the result (B),
// decoded side by side from one position and read in step, so that a
// switch lands on the very sample where the other side left off. A switch
// fades across a few milliseconds, which keeps it free of clicks; a new
// pair (a jump to another position, a new gain) takes over the same way
// once it has sound, so nothing falls silent while it starts.
// One thread: the player's.

#include "engine/VXAuditionStream.h"

#include <memory>
#include <vector>

class VXAuditionMix {
public:
    enum Side { A, B };

    // 4 ms at 48 kHz: short enough to land "at once", long enough not to click.
    static constexpr int kDefaultFadeFrames = 192;

    explicit VXAuditionMix(int channels, int fadeFrames = kDefaultFadeFrames);

    enum Start {
        Jump,    // the new pair is heard from its start: a seek
        Follow,  // it is heard from where the pair heard has got to by then
                 // (it is started at position() for that): a new gain, a B
    };
    // A pair from startFrame (b null: A alone), at level (linear, for both
    // sides). It takes over from the pair heard once it has sound; a pair
    // that was still waiting is dropped.
    void replace(std::unique_ptr<VXAuditionStream> a, std::unique_ptr<VXAuditionStream> b, qint64 startFrame,
                 Start start = Jump, float level = 1.0f);
    // Drops every pair: silence, at the end.
    void clear();
    // Where the next pairs' and the heard pair's sound goes; a pair without
    // B plays A whatever the side.
    void setSide(Side side) { m_side = side; }
    Side side() const { return m_side; }

    // Mixes up to frames frames into out (interleaved); the frames written,
    // fewer (down to 0) while the streams have no more yet or at the end.
    qsizetype mix(float *out, qsizetype frames);
    // Nothing more will come: the pair heard has ended and none waits.
    bool atEnd() const;
    // A new pair is not yet heard alone: it waits for sound, or fades in.
    bool switching() const { return m_next || m_incoming; }
    // The frame (from the file's start) that the next mix() begins with; a
    // seek's target as soon as it is asked for.
    qint64 position() const;
    // Why a side's stream, heard or waiting, ended before its end; empty
    // when none did.
    QString failure(Side side) const;

private:
    struct Pair {
        std::unique_ptr<VXAuditionStream> a;
        std::unique_ptr<VXAuditionStream> b;
        qint64 position = 0;
        bool follows = false;
        float level = 1.0f;
        float shareB = 0.0f;  // 0 plays A, 1 plays B; between them during a switch
    };

    // Frames the pair can give now, in step; -1 once it has ended.
    static qsizetype ready(const Pair &pair);
    // n frames of the pair, mixed by its share (moving toward the side), into out.
    void readPair(Pair &pair, qsizetype n, float *out);
    void startNextIfReady();
    // Frames of sound now, in the fade from heard to incoming when there is one.
    qsizetype mixFade(float *out, qsizetype frames);

    int m_channels;
    int m_fade;
    Side m_side = A;
    std::unique_ptr<Pair> m_heard;
    std::unique_ptr<Pair> m_incoming;  // being faded into; m_crossed frames so far
    std::unique_ptr<Pair> m_next;      // waiting for sound
    int m_crossed = 0;
    std::vector<float> m_a, m_b, m_other;
};

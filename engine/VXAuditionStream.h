#pragma once

// One stream of sound to listen to: a play request (VXPlayback.h) decoded
// ahead on a pool thread by the program's codec backend (a caged worker
// child in the app), into a bounded buffer that the player reads as the
// sound card asks. Once the buffer holds its share the decoding waits, and
// with it the child, so a paused stream costs no CPU.

#include "engine/codec/VXPlayback.h"

#include <QString>
#include <functional>
#include <memory>

class QThreadPool;

class VXAuditionStream {
public:
    // Starts decoding on pool at once. notify is called from the decoding
    // thread when sound arrives in an empty buffer and when the stream has
    // ended; never once the stream is destroyed.
    VXAuditionStream(vx::PlayRequest request, QThreadPool &pool, double aheadSeconds,
                     std::function<void()> notify = {});
    // Stops the decoding; its thread ends soon after, on its own.
    ~VXAuditionStream();

    // From here on one reader thread.
    // The format of what is read; zero until the first sound has come.
    vx::PcmFormat format() const;
    // Frames ready to be read.
    qsizetype available() const;
    // Up to frames frames into to (interleaved); the frames read.
    qsizetype read(float *to, qsizetype frames);
    // Nothing more will come: the end, a failure, or a refused format.
    bool finished() const;
    // Why it ended before the file's end; empty otherwise.
    QString failure() const;

    VXAuditionStream(const VXAuditionStream &) = delete;
    VXAuditionStream &operator=(const VXAuditionStream &) = delete;

private:
    struct Buffer;
    std::shared_ptr<Buffer> d;
};

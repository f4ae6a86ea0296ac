#include "engine/VXAuditionStream.h"

#include "engine/codec/VXCodecBackend.h"

#include <QThreadPool>
#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <vector>

// Shared by the stream and its decoding task, which may outlive it by the
// moment its child takes to die.
struct VXAuditionStream::Buffer {
    mutable std::mutex lock;
    std::condition_variable room;
    std::deque<std::vector<float>> blocks;
    size_t frontRead = 0;  // samples of blocks.front() already read
    qsizetype frames = 0;  // ready to be read
    qsizetype ahead = 0;   // frames held at most; set by the first block's rate
    double aheadSeconds = 0;
    vx::PcmFormat format;
    bool finished = false;
    bool stopped = false;
    QString failure;
    VXCancel cancel;
    // Apart from lock, so that a reader may be told while it reads; cleared
    // by the stream's end, after which it is never called.
    std::mutex notifyLock;
    std::function<void()> notify;

    void tell()
    {
        std::lock_guard<std::mutex> guard(notifyLock);
        if (notify)
            notify();
    }

    // On the decoding thread: waits for room, then keeps the block.
    bool take(const vx::PcmFormat &f, const float *samples, qsizetype n)
    {
        bool wasEmpty = false;
        {
            std::unique_lock<std::mutex> guard(lock);
            if (format.channels == 0) {
                format = f;
                ahead = std::max<qsizetype>(qsizetype(aheadSeconds * f.sampleRate), 1);
            } else if (!(f == format)) {
                // Asked for one format, every block has it; anything else is no sound of ours.
                failure = QStringLiteral("the sound changed its format");
                return false;
            }
            room.wait(guard, [this] { return stopped || frames < ahead; });
            if (stopped)
                return false;
            wasEmpty = frames == 0;
            blocks.emplace_back(samples, samples + n * f.channels);
            frames += n;
        }
        if (wasEmpty)
            tell();
        return true;
    }

    void end(const VXResult<> &played)
    {
        {
            std::lock_guard<std::mutex> guard(lock);
            finished = true;
            if (!played && !stopped && !VXIsCancelled(played.error()))
                failure = played.reason();
        }
        tell();
    }
};

VXAuditionStream::VXAuditionStream(vx::PlayRequest request, QThreadPool &pool, double aheadSeconds,
                                   std::function<void()> notify)
    : d(std::make_shared<Buffer>())
{
    d->aheadSeconds = aheadSeconds;
    d->notify = std::move(notify);
    pool.start([d = d, request = std::move(request)] {
        const VXResult<> played = vx::codecBackend().play(
            request, d->cancel, [&d](const vx::PcmFormat &f, const float *samples, qsizetype n) {
                return d->take(f, samples, n);
            });
        d->end(played);
    });
}

VXAuditionStream::~VXAuditionStream()
{
    {
        std::lock_guard<std::mutex> guard(d->lock);
        d->stopped = true;
    }
    {
        std::lock_guard<std::mutex> guard(d->notifyLock);
        d->notify = nullptr;
    }
    d->room.notify_all();
    // Kills the child at once; the task then returns from its read.
    d->cancel.cancel();
}

vx::PcmFormat VXAuditionStream::format() const
{
    std::lock_guard<std::mutex> guard(d->lock);
    return d->format;
}

qsizetype VXAuditionStream::available() const
{
    std::lock_guard<std::mutex> guard(d->lock);
    return d->frames;
}

qsizetype VXAuditionStream::read(float *to, qsizetype frames)
{
    qsizetype done = 0;
    {
        std::lock_guard<std::mutex> guard(d->lock);
        const size_t channels = size_t(std::max(d->format.channels, 1));
        while (done < frames && !d->blocks.empty()) {
            const std::vector<float> &block = d->blocks.front();
            const size_t left = (block.size() - d->frontRead) / channels;
            const size_t n = std::min(left, size_t(frames - done));
            std::copy_n(block.data() + d->frontRead, n * channels, to + size_t(done) * channels);
            d->frontRead += n * channels;
            done += qsizetype(n);
            if (d->frontRead == block.size()) {
                d->blocks.pop_front();
                d->frontRead = 0;
            }
        }
        d->frames -= done;
    }
    if (done > 0)
        d->room.notify_all();
    return done;
}

bool VXAuditionStream::finished() const
{
    std::lock_guard<std::mutex> guard(d->lock);
    return d->finished;
}

QString VXAuditionStream::failure() const
{
    std::lock_guard<std::mutex> guard(d->lock);
    return d->failure;
}

#include "engine/codec/VXDemuxerContext.h"

#include "engine/codec/VXCodecConstants.h"
#include "engine/codec/VXLibav.h"
#include "engine/codec/VXProbe.h"
#include "engine/codec/VXWorker.h"

#include <QBuffer>
#include <QImageReader>
#include <mutex>
#include <vector>

namespace {

constexpr qsizetype kMaxPictureBytes = 50 * 1024 * 1024;
constexpr int kMaxPictureSide = 16384;
// CPU seconds for probing one file in the worker: a few milliseconds is the
// rule, a second the most a file without durations takes to be read through.
constexpr double kProbeCpuSeconds = 5;
// An import probes a few files at once; that many sessions are kept.
constexpr size_t kIdleSessions = 4;
// A session is retired after that many files, so whatever a child
// accumulates stays bounded.
constexpr int kRunsPerSession = 500;

VXError makeError(int code, const QString &description)
{
    VXError e;
    e.domain = QStringLiteral("VXCodec");
    e.code = code;
    e.description = description;
    return e;
}

// Probing sessions kept between files: a child per file would cost ten times
// the probing of a short WAV (fork, faults, exit on a loaded libav).
class SessionPool {
public:
    static SessionPool &instance()
    {
        static SessionPool *pool = new SessionPool;  // never destroyed: probes may outlive main
        return *pool;
    }

    std::unique_ptr<vx::WorkerSession> take()
    {
        std::lock_guard<std::mutex> guard(m_lock);
        if (m_idle.empty())
            return std::make_unique<vx::WorkerSession>(kProbeCpuSeconds, QStringLiteral("demuxer"));
        auto session = std::move(m_idle.back());
        m_idle.pop_back();
        return session;
    }

    // One not kept ends here, outside the lock: its end waits for the child.
    void giveBack(std::unique_ptr<vx::WorkerSession> session)
    {
        if (!session->alive() || session->runs() >= kRunsPerSession)
            return;
        std::lock_guard<std::mutex> guard(m_lock);
        if (m_idle.size() < kIdleSessions)
            m_idle.push_back(std::move(session));
    }

private:
    std::mutex m_lock;
    std::vector<std::unique_ptr<vx::WorkerSession>> m_idle;
};

} // namespace

struct VXDemuxerContext::Private {
    quint64 length = 0;
    QByteArray picture;
};

VXDemuxerContext::VXDemuxerContext() : d(std::make_unique<Private>()) {}
VXDemuxerContext::~VXDemuxerContext() = default;

std::unique_ptr<VXDemuxerContext> VXDemuxerContext::initWithFilename(const QString &path, VXError *error)
{
    VXError local;
    VXError &err = error ? *error : local;
    // With a worker, the file is opened there: a demuxer that crashes or
    // spins on it refuses the file, and this program goes on.
    if (!vx::workerProgram().isEmpty())
        return initInWorker(path, err);

    if (vx::hasDrmHeader(path)) {
        err = makeError(AVERROR_PATCHWELCOME, QStringLiteral("The audio of %1 is DRM-protected").arg(path));
        err.userInfo.insert(QLatin1String(VXTranscodingDRMProtected), true);
        return nullptr;
    }
    QString why;
    int code = 0;
    vx::InputPtr input = vx::openInput(path, &why, &code);
    if (!input) {
        err = makeError(code, QStringLiteral("Cannot open %1: %2").arg(path, why));
        return nullptr;
    }
    if (vx::hasDrmStream(input.get())) {
        err = makeError(AVERROR_PATCHWELCOME, QStringLiteral("The audio of %1 is DRM-protected").arg(path));
        err.userInfo.insert(QLatin1String(VXTranscodingDRMProtected), true);
        return nullptr;
    }
    const int index = av_find_best_stream(input.get(), AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
    if (index < 0) {
        err = makeError(index, QStringLiteral("%1 has no decodable audio stream").arg(path));
        return nullptr;
    }

    std::unique_ptr<VXDemuxerContext> context(new VXDemuxerContext);
    context->d->picture = vx::coverArt(input.get());
    context->d->length = vx::headerLength(input.get(), index);
    if (context->d->length == 0)
        context->d->length = vx::packetLength(input.get(), index);
    if (context->d->length == 0) {
        err = makeError(AVERROR_INVALIDDATA, QStringLiteral("%1 holds no audio").arg(path));
        return nullptr;
    }
    return context;
}

std::unique_ptr<VXDemuxerContext> VXDemuxerContext::initInWorker(const QString &path, VXError &err)
{
    const QStringList probe{QStringLiteral("probe"), path};
    auto session = SessionPool::instance().take();
    vx::WorkerRun::Outcome outcome = session->run(probe);
    if (session->alive()) {
        SessionPool::instance().giveBack(std::move(session));
    } else {
        session.reset();
        // The child died on this file, or of what earlier files left in it:
        // the file gets a child of its own to tell.
        outcome = vx::WorkerRun(probe, kProbeCpuSeconds, QStringLiteral("demuxer")).run({});
    }
    const auto &values = outcome.values;
    // A length alone means the probe got through the demuxer and ended in
    // the cover's decoder: the file is fine, its cover is not shown.
    if (values.contains("length")) {
        std::unique_ptr<VXDemuxerContext> context(new VXDemuxerContext);
        context->d->length = values.value("length").toULongLong();
        if (outcome.completed)
            context->d->picture = values.value("picture");
        if (context->d->length > 0)
            return context;
    }
    if (values.contains("description")) {
        err = makeError(values.value("code").toInt(), QString::fromUtf8(values.value("description")));
        if (values.contains("drm"))
            err.userInfo.insert(QLatin1String(VXTranscodingDRMProtected), true);
        return nullptr;
    }
    err = makeError(AVERROR_EXTERNAL, QStringLiteral("Cannot open %1: %2").arg(path, outcome.reason));
    return nullptr;
}

quint64 VXDemuxerContext::audioStreamLength() const { return d->length; }

std::unique_ptr<VXAttachedPicture> VXDemuxerContext::attachPicture() const
{
    if (d->picture.isEmpty())
        return nullptr;
    return std::make_unique<VXAttachedPicture>(d->picture);
}

QImage VXAttachedPicture::cgImage() const
{
    if (m_encoded.isEmpty() || m_encoded.size() > kMaxPictureBytes)
        return {};
    QBuffer buffer;
    buffer.setData(m_encoded);
    if (!buffer.open(QIODevice::ReadOnly))
        return {};
    QImageReader reader(&buffer);
    // The header's size first: a tiny file may claim a gigantic canvas.
    const QSize size = reader.size();
    if (!size.isValid() || size.width() > kMaxPictureSide || size.height() > kMaxPictureSide)
        return {};
    QImage image;
    if (!reader.read(&image))
        return {};
    return image;
}

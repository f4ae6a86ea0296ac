// The worker backend: each operation is a command run in a worker child
// (VXWorker.h), so a file that crashes a decoder costs that file only.

#include "engine/codec/VXCodecBackend.h"

#include "engine/codec/VXCancel.h"
#include "engine/codec/VXFilter.h"
#include "engine/codec/VXFilterPrivate.h"
#include "engine/codec/VXLibav.h"
#include "engine/codec/VXLog.h"
#include "engine/codec/VXPipeline.h"
#include "engine/codec/VXWorker.h"
#include "engine/codec/VXWorkerProtocol.h"

#include <QFileInfo>
#include <mutex>
#include <optional>
#include <vector>

namespace vx {
namespace {

// CPU seconds for probing one file in the worker: a few milliseconds is the
// rule, a second the most a file without durations takes to be read through.
constexpr double kProbeCpuSeconds = 5;
// An import probes a few files at once; that many sessions are kept.
constexpr size_t kIdleSessions = 4;
// A session is retired after that many files, so whatever a child
// accumulates stays bounded.
constexpr int kRunsPerSession = 500;

// Probing sessions kept between files: a child per file would cost ten times
// the probing of a short WAV (fork, faults, exit on a loaded libav).
class SessionPool {
public:
    static SessionPool &instance()
    {
        static SessionPool *pool = new SessionPool;  // never destroyed: probes may outlive main
        return *pool;
    }

    std::unique_ptr<WorkerSession> take()
    {
        std::lock_guard<std::mutex> guard(m_lock);
        if (m_idle.empty())
            return std::make_unique<WorkerSession>(kProbeCpuSeconds, QStringLiteral("demuxer"));
        auto session = std::move(m_idle.back());
        m_idle.pop_back();
        return session;
    }

    // One not kept ends here, outside the lock: its end waits for the child.
    void giveBack(std::unique_ptr<WorkerSession> session)
    {
        if (!session->alive() || session->runs() >= kRunsPerSession)
            return;
        std::lock_guard<std::mutex> guard(m_lock);
        if (m_idle.size() < kIdleSessions)
            m_idle.push_back(std::move(session));
    }

private:
    std::mutex m_lock;
    std::vector<std::unique_ptr<WorkerSession>> m_idle;
};

QStringList transcodeArguments(const TranscodeRequest &request)
{
    QStringList args{QStringLiteral("transcode"), request.input, request.output};
    if (request.measureOutput >= 0)
        args << QStringLiteral("--measure") << QString::number(request.measureOutput);
    if (request.measureOthers)
        args << QStringLiteral("--measure-streams") << QStringLiteral("1");
    if (request.measureInput)
        args << QStringLiteral("--measure-input") << QStringLiteral("1");
    args << filterArguments(request.filters);
    for (const auto &[index, filters] : request.streamFilters)
        args << QStringLiteral("--stream") << QString::number(index) << filterArguments(filters);
    return args;
}

// A run that a cancel stops by killing its child.
VXResult<WorkerReport> runCancellable(WorkerRun &run, const VXCancel *cancel, const WorkerHandlers &handlers)
{
    const VXCancel::Stopper stopper = VXCancel::onCancel(cancel, [&run] { run.cancel(); });
    return run.run(handlers);
}

class WorkerBackend final : public CodecBackend {
public:
    VXResult<std::unique_ptr<Pipeline>> open(const QString &input, const QString &) const override
    {
        // The worker opens the file itself and says why when it cannot: a
        // damaged file is never parsed in this process.
        if (!QFileInfo(input).isFile())
            return VXError::because(QFileInfo::exists(input) ? QStringLiteral("not a regular file")
                                                             : QStringLiteral("no such file"));
        return std::unique_ptr<Pipeline>();
    }

    VXResult<TranscodeResult> transcode(const TranscodeRequest &request, std::unique_ptr<Pipeline> &,
                                        const VXCancel &cancel, const Progress &progress) const override;
    VXResult<Measurement> measure(const QString &path, int flags, const VXCancel *cancel,
                                  const Progress &progress) const override;
    VXResult<VXAlbumLoudness> measureAlbum(const QStringList &paths, int flags, const VXCancel *cancel) const override;
    VXResult<ProbeResult> probe(const QString &path) const override;
    VXResult<LosslessResult> lossless(const LosslessRequest &request, const VXCancel *cancel) const override;
    VXResult<> play(const PlayRequest &request, const VXCancel &cancel, const PcmSink &sink) const override;
};

VXResult<TranscodeResult> WorkerBackend::transcode(const TranscodeRequest &request, std::unique_ptr<Pipeline> &,
                                                   const VXCancel &cancel, const Progress &progress) const
{
    for (const auto &filter : request.filters)
        VXFilterAccess::logState(*filter)->clearPending();
    // An hour of CPU at most; the child lowers it once it knows the file's length.
    WorkerRun run(transcodeArguments(request), 3600.0);
    WorkerHandlers handlers;
    handlers.progress = progress;
    // What the child's filters printed as they were freed: as if ours had.
    handlers.printOut = [&request](int index, const QByteArray &bytes) {
        if (index >= 0 && size_t(index) < request.filters.size())
            VXFilterAccess::logState(*request.filters[size_t(index)])->append(bytes.constData(), size_t(bytes.size()));
    };
    const VXResult<WorkerReport> ran = runCancellable(run, &cancel, handlers);
    if (!ran) {
        if (VXIsCancelled(ran.error()) || cancel.isCancelled())
            return VXCancelledError();
        const QString reason = ran.reason().isEmpty() ? QStringLiteral("the worker failed") : ran.reason();
        VXLog(QStringLiteral("Transcoding %1 failed: %2").arg(request.input, reason));
        return VXError::because(reason);
    }
    TranscodeResult result;
    result.output = ran->loudness;
    result.otherAudio = ran->streams;
    result.input = ran->input;
    return result;
}

VXResult<Measurement> WorkerBackend::measure(const QString &path, int flags, const VXCancel *cancel,
                                             const Progress &progress) const
{
    // Decoding the result can crash like any decoding: in the child too.
    WorkerRun run({QStringLiteral("measure"), path, QString::number(flags)}, 600.0);
    const VXResult<WorkerReport> ran = runCancellable(run, cancel, {progress, nullptr, nullptr, nullptr});
    if (!ran)
        return VXIsCancelled(ran.error()) ? VXCancelledError() : VXError::because(ran.reason());
    if (!ran->loudness.measured())
        return VXError::because(QString());
    Measurement result;
    result.loudness = ran->loudness;
    if (flags & VXMeasureOtherStreams)
        result.others = ran->streams;
    return result;
}

VXResult<VXAlbumLoudness> WorkerBackend::measureAlbum(const QStringList &paths, int flags,
                                                      const VXCancel *cancel) const
{
    // The album figure needs every track's meter state at once, and states
    // do not cross a pipe: one child measures the whole album and sends back
    // figures only. Albums still run side by side.
    WorkerRun run(measureAlbumCommand(paths, flags), 600.0 * double(std::max<qsizetype>(1, paths.size())));
    const VXResult<WorkerReport> ran = runCancellable(run, cancel, {});
    if (ran && ran->hasAlbum && qsizetype(ran->album.tracks.size()) == paths.size())
        return ran->album;
    if (!ran && VXIsCancelled(ran.error()))
        return VXCancelledError();
    return VXError::because(ran.reason().isEmpty() ? QStringLiteral("the album could not be measured") : ran.reason());
}

VXResult<ProbeResult> WorkerBackend::probe(const QString &path) const
{
    const QStringList probe{QStringLiteral("probe"), path};
    ProbeResult result;
    bool hasLength = false;
    WorkerHandlers handlers;
    handlers.value = [&](const QString &name, const QByteArray &bytes) {
        if (name == QLatin1String("length"))
            result.length = bytes.toULongLong(), hasLength = true;
        else if (name == QLatin1String("picture"))
            result.picture = bytes;
    };
    auto session = SessionPool::instance().take();
    VXResult<WorkerReport> ran = session->run(probe, handlers);
    if (session->alive()) {
        SessionPool::instance().giveBack(std::move(session));
    } else {
        session.reset();
        // The child died on this file, or of what earlier files left in it:
        // the file gets a child of its own to tell.
        result = {};
        hasLength = false;
        ran = WorkerRun(probe, kProbeCpuSeconds, QStringLiteral("demuxer")).run(handlers);
    }
    // A length alone means the probe got through the demuxer and ended in
    // the cover's decoder: the file is fine, its cover is not shown.
    if (!ran)
        result.picture.clear();
    if (hasLength && result.length > 0)
        return result;
    if (!ran && ran.error().domain == QLatin1String("VXCodec"))
        return ran.error();
    return probeError(AVERROR_EXTERNAL, QStringLiteral("Cannot open %1: %2").arg(path, ran.reason()));
}

VXResult<LosslessResult> WorkerBackend::lossless(const LosslessRequest &request, const VXCancel *cancel) const
{
    // The parsing of frames and pages runs caged like any decoding.
    WorkerRun run(losslessArguments(request), 600.0, QStringLiteral("parser"));
    std::optional<LosslessResult> result;
    WorkerHandlers handlers;
    handlers.value = [&result](const QString &name, const QByteArray &bytes) {
        if (name == QLatin1String("lossless"))
            result = losslessFromCbor(bytes);
    };
    const VXResult<WorkerReport> ran = runCancellable(run, cancel, handlers);
    if (!ran)
        return VXIsCancelled(ran.error()) ? VXCancelledError() : ran.error();
    if (!result)
        return VXError::because(QStringLiteral("the worker sent no result"));
    result->output = ran->loudness;
    return *result;
}

VXResult<> WorkerBackend::play(const PlayRequest &request, const VXCancel &cancel, const PcmSink &sink) const
{
    // Paced by the listener, so its CPU time is a small part of its length:
    // an hour is far beyond what any file needs.
    WorkerRun run(playCommand(request), 3600.0);
    bool refused = false;
    WorkerHandlers handlers;
    handlers.pcm = [&](int rate, int channels, const QByteArray &samples) {
        if (refused)
            return;
        const auto frames = samples.size() / (channels * qsizetype(sizeof(float)));
        // The frame's bytes are a fresh allocation, aligned for floats.
        if (!sink(PcmFormat{rate, channels}, reinterpret_cast<const float *>(samples.constData()), frames)) {
            refused = true;
            run.cancel();
        }
    };
    const VXResult<WorkerReport> ran = runCancellable(run, &cancel, handlers);
    if (refused)
        return {};
    if (!ran)
        return VXIsCancelled(ran.error()) || cancel.isCancelled() ? VXCancelledError() : ran.error();
    return {};
}

} // namespace

const CodecBackend &workerBackend()
{
    static const WorkerBackend backend;
    return backend;
}

} // namespace vx

// What a worker child runs: one command (or a session of them) on files,
// caged, with its reports going up as frames. The work is the in-process
// backend's; the server that forks the children is in VXWorkerServer.cpp.

#include "engine/codec/VXWorkerChild.h"

#include "engine/codec/VXCancel.h"
#include "engine/codec/VXCodecBackend.h"
#include "engine/codec/VXCodecConstants.h"
#include "engine/codec/VXDemuxerContext.h"
#include "engine/codec/VXFilter.h"
#include "engine/codec/VXFilterPrivate.h"
#include "engine/codec/VXFrame.h"
#include "engine/codec/VXLog.h"
#include "engine/codec/VXPipeline.h"
#include "engine/codec/VXPlayback.h"
#include "engine/codec/VXSandbox.h"
#include "engine/codec/VXTranscoding.h"
#include "engine/codec/VXWorkerProtocol.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <mutex>
#include <sys/resource.h>
#include <unistd.h>

namespace vx {
namespace {

QString oneLine(const QString &text)
{
    QString line = text;
    line.replace(QLatin1Char('\n'), QLatin1Char(' '));
    return line;
}

// The child's side of the pipe: whole frames, one writer at a time.
class Channel {
public:
    // False once the program has stopped reading.
    bool send(const QCborMap &message)
    {
        std::lock_guard<std::mutex> guard(m_lock);
        return writeFrame(STDOUT_FILENO, message).ok();
    }
    void send(const char *name, QLatin1StringView key, const QCborValue &value)
    {
        QCborMap m = message(name);
        m.insert(key, value);
        send(m);
    }
    void end(int64_t result) { send("end", QLatin1String("result"), qint64(result)); }
    // The error, then the end of a failed command.
    void fail(const VXError &error)
    {
        QCborMap m = message("error");
        m.insert(QLatin1String("text"), oneLine(error.description));
        if (!error.domain.isEmpty())
            m.insert(QLatin1String("domain"), error.domain);
        m.insert(QLatin1String("code"), error.code);
        if (error.userInfo.contains(QLatin1String(VXTranscodingDRMProtected)))
            m.insert(QLatin1String("drm"), true);
        send(m);
        end(VXTranscodingFailed);
    }
    void loudness(const char *name, const VXLoudness &l, int fields, int index = -1)
    {
        QCborMap m = message(name);
        if (index >= 0)
            m.insert(QLatin1String("index"), index);
        m.insert(QLatin1String("loudness"), loudnessToCbor(l, fields));
        send(m);
    }

private:
    std::mutex m_lock;
};

// "transcode IN OUT [--measure FLAGS] [--measure-streams 1] [--measure-input 1]
// [--stream INDEX] [--filter NAME [--attr KEY=VALUE]...]...": the filters
// before any --stream are the main stream's.
bool parseTranscode(const QStringList &args, TranscodeRequest *request)
{
    request->input = args[0];
    request->output = args[1];
    int stream = -1;
    for (qsizetype i = 2; i + 1 < args.size(); i += 2) {
        const QString &option = args[i];
        const QString &value = args[i + 1];
        if (option == QLatin1String("--measure")) {
            request->measureOutput = std::max(value.toInt(), 0);
        } else if (option == QLatin1String("--measure-streams")) {
            request->measureOthers = true;
        } else if (option == QLatin1String("--measure-input")) {
            request->measureInput = true;
        } else if (option == QLatin1String("--stream")) {
            stream = value.toInt();
        } else if (option == QLatin1String("--filter") || option == QLatin1String("--attr")) {
            auto &filters = stream < 0 ? request->filters : request->streamFilters[stream];
            // An attribute before any filter is ignored; a filter that does not exist is refused.
            if (!readFilterOption(option, value, filters) && option == QLatin1String("--filter"))
                return false;
        }
    }
    return true;
}

int transcode(Channel &channel, const QStringList &args)
{
    TranscodeRequest request;
    if (args.size() < 2 || !parseTranscode(args, &request))
        return 2;
    VXResult<std::unique_ptr<Pipeline>> pipeline = inProcessBackend().open(request.input, request.output);
    if (!pipeline) {
        channel.fail(pipeline.error());
        return 0;
    }
    // Generous: pass 1 of a long file runs at about 40 times real time.
    const rlim_t seconds = rlim_t(120 + 2 * quint64((*pipeline)->durationUs) / 1000000);
    const rlimit cpu{seconds, seconds + 5};
    setrlimit(RLIMIT_CPU, &cpu);
    const VXCancel never;
    const VXResult<TranscodeResult> result = inProcessBackend().transcode(
        request, *pipeline, never, [&](int percent) { channel.send("progress", QLatin1String("percent"), percent); });
    pipeline->reset();  // the filters print their records now
    if (result && result->output.measured())
        channel.loudness("output", result->output, kFigures);
    for (const auto &[index, loudness] : result ? result->otherAudio : std::map<int, VXLoudness>())
        channel.loudness("stream", loudness, kFigures, index);
    if (result && result->input.measured())
        channel.loudness("input", result->input, kInputFigures | kGate);
    for (size_t i = 0; i < request.filters.size(); ++i) {
        QCborMap m = message("printOut");
        m.insert(QLatin1String("filter"), qint64(i));
        m.insert(QLatin1String("bytes"), VXFilterAccess::logState(*request.filters[i])->takePending());
        channel.send(m);
    }
    result ? channel.end(VXTranscodingCompleted) : channel.fail(result.error());
    return 0;
}

int measure(Channel &channel, const QStringList &args)
{
    if (args.size() < 2)
        return 2;
    // Progress too: this is a job's whole first pass.
    const VXResult<Measurement> measured = inProcessBackend().measure(
        args[0], args[1].toInt(), nullptr, [&](int percent) { channel.send("progress", QLatin1String("percent"), percent); });
    if (!measured) {
        channel.fail(measured.error());
        return 0;
    }
    // The steps rather than the curve: the curve follows from them, at a
    // quarter of the bytes, and they are what a cache keeps.
    channel.loudness("output", measured->loudness, kFigures | kGate | kMaxima | kSteps);
    for (const auto &[index, loudness] : measured->others)
        channel.loudness("stream", loudness, kFigures, index);
    channel.end(VXTranscodingCompleted);
    return 0;
}

// Every track of an album in this one child: the album figure needs all
// their meter states together.
int measureAlbum(Channel &channel, const QStringList &args)
{
    int flags = 0;
    const QStringList paths = measureAlbumTracks(args, &flags);
    if (paths.isEmpty())
        return 2;
    const VXResult<VXAlbumLoudness> album = inProcessBackend().measureAlbum(paths, flags, nullptr);
    channel.send(albumToCbor(album ? *album : VXAlbumLoudness()));
    if (album && album->album.measured())
        channel.end(VXTranscodingCompleted);
    else
        channel.fail(album ? VXError::because(QStringLiteral("no track of the album could be measured")) : album.error());
    return 0;
}

// The sound from a position as it is made, block by block. Nothing but the
// pipe paces it: once the program holds what it wants ahead, its reading
// stops and the writes here wait.
int play(Channel &channel, const QStringList &args)
{
    PlayRequest request;
    if (!parsePlayCommand(args, &request))
        return 2;
    const VXCancel never;
    const VXResult<> played = inProcessBackend().play(
        request, never, [&channel](const PcmFormat &format, const float *samples, qsizetype frames) {
            QCborMap m = message("pcm");
            m.insert(QLatin1String("rate"), format.sampleRate);
            m.insert(QLatin1String("channels"), format.channels);
            m.insert(QLatin1String("bytes"), QByteArray(reinterpret_cast<const char *>(samples),
                                                        frames * format.channels * qsizetype(sizeof(float))));
            return channel.send(m);
        });
    played ? channel.end(VXTranscodingCompleted) : channel.fail(played.error());
    return 0;
}

void sendValue(Channel &channel, const char *name, const QByteArray &bytes)
{
    QCborMap m = message("value");
    m.insert(QLatin1String("name"), QLatin1String(name));
    m.insert(QLatin1String("bytes"), bytes);
    channel.send(m);
}

// What an import learns of a file: its length and cover art, or why it is
// refused.
int probe(Channel &channel, const QStringList &args)
{
    if (args.isEmpty())
        return 2;
    // Waiting on a slow or stuck disk costs no CPU time: a clock limit too.
    alarm(30);
    const VXResult<ProbeResult> probed = inProcessBackend().probe(args[0]);
    if (!probed) {
        channel.fail(probed.error());
        return 0;
    }
    sendValue(channel, "length", QByteArray::number(probed->length));
    // Decoded here first: a picture that crashes its decoder then costs the
    // cover only (the length is already sent), and one that does not decode
    // is not sent at all.
    if (!probed->picture.isEmpty() && !VXAttachedPicture(probed->picture).cgImage().isNull())
        sendValue(channel, "picture", probed->picture);
    channel.end(VXTranscodingCompleted);
    return 0;
}

// A gain written into the copy's gain fields, the copy measured after.
int lossless(Channel &channel, const QStringList &args)
{
    LosslessRequest request;
    if (!parseLosslessArguments(args, &request))
        return 2;
    const VXResult<LosslessResult> done = inProcessBackend().lossless(request, nullptr);
    if (!done) {
        channel.fail(done.error());
        return 0;
    }
    sendValue(channel, "lossless", losslessToCbor(*done));
    if (done->output.measured())
        channel.loudness("output", done->output, kFigures);
    channel.end(VXTranscodingCompleted);
    return 0;
}

int dispatch(Channel &channel, QStringList args)
{
    // Test seam (see withTestSeam in VXWorker.cpp): a stand-in for a file that crashes a decoder.
    if (!args.isEmpty() && args.first() == QLatin1String("--abort-for-test"))
        std::abort();
    if (args.isEmpty())
        return 2;
    const QString command = args.takeFirst();
    if (command == QLatin1String("transcode"))
        return transcode(channel, args);
    if (command == QLatin1String("measure"))
        return measure(channel, args);
    if (command == QLatin1String("measure-album"))
        return measureAlbum(channel, args);
    if (command == QLatin1String("probe"))
        return probe(channel, args);
    if (command == QLatin1String("lossless"))
        return lossless(channel, args);
    if (command == QLatin1String("play"))
        return play(channel, args);
    return 2;
}

// A session (see WorkerSession): "run" frames one after another from the
// socket, each command with its own CPU seconds (args[0]) on top of what the
// earlier used.
int serve(Channel &channel, const QStringList &args)
{
    const rlim_t each = rlim_t(std::max(1, args.value(0).toInt()));
    const int requests = ::dup(STDOUT_FILENO);
    for (VXResult<QCborMap> request = readFrame(requests); request; request = readFrame(requests)) {
        if (request->value(QLatin1String("m")).toString() != QLatin1String("run"))
            break;
        rusage used{};
        getrusage(RUSAGE_SELF, &used);
        rlimit cpu{};
        getrlimit(RLIMIT_CPU, &cpu);
        cpu.rlim_cur = std::min(rlim_t(used.ru_utime.tv_sec + used.ru_stime.tv_sec + 1) + each, cpu.rlim_max);
        setrlimit(RLIMIT_CPU, &cpu);
        if (dispatch(channel, stringsFromCbor(request->value(QLatin1String("args")))) != 0)
            channel.end(VXTranscodingFailed);
        alarm(0);
    }
    return 0;
}

} // namespace

int runWorkerCommand(QStringList args)
{
    Channel channel;
    VXSetLogSink([&channel](const QString &line) { channel.send("log", QLatin1String("text"), oneLine(line)); });
    // Test seam (see withTestSeam in VXWorker.cpp): a run that tries to break out, caged.
    QString escape;
    if (args.value(0) == QLatin1String("--escape-for-test")) {
        escape = args.value(1);
        args = args.mid(2);
    }
    // Caged before the file is opened; what the kernel lacks is said, and
    // the work goes on without it.
    QString note;
    const bool caged = enterSandbox(grantFor(args.value(0) == QLatin1String("--abort-for-test") ? args.mid(1) : args), &note);
    if (!caged || !note.isEmpty())
        channel.send("sandbox", QLatin1String("text"), oneLine(note));
    if (!escape.isEmpty()) {
        channel.fail(VXError::because(attemptEscapeForTest(escape)));
        return 0;
    }
    if (args.value(0) == QLatin1String("serve"))
        return serve(channel, args.mid(1));
    return dispatch(channel, std::move(args));
}

} // namespace vx

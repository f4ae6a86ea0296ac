// What a worker child runs: one command (or a session of them) on files,
// caged, with its reports going up the pipe. The server that forks the
// children is in VXWorkerServer.cpp.

#include "engine/codec/VXCodecConstants.h"
#include "engine/codec/VXDemuxerContext.h"
#include "engine/codec/VXFilter.h"
#include "engine/codec/VXFilterPrivate.h"
#include "engine/codec/VXLog.h"
#include "engine/codec/VXMeasurePrivate.h"
#include "engine/codec/VXSandbox.h"
#include "engine/codec/VXTranscoding.h"
#include "engine/codec/VXWorker.h"
#include "engine/codec/VXWorkerProtocol.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace vx {
namespace {

QString oneLine(const QString &text)
{
    QString line = text;
    line.replace(QLatin1Char('\n'), QLatin1Char(' '));
    return line;
}

// The child's side of the pipe: whole messages, one writer at a time.
class Channel {
public:
    void send(const QByteArray &line, const QByteArray &payload = {})
    {
        std::lock_guard<std::mutex> guard(m_lock);
        std::fwrite(line.constData(), 1, size_t(line.size()), stdout);
        std::fputc('\n', stdout);
        if (!payload.isEmpty())
            std::fwrite(payload.constData(), 1, size_t(payload.size()), stdout);
        std::fflush(stdout);
    }

private:
    std::mutex m_lock;
};

int transcode(Channel &channel, const QStringList &args)
{
    if (args.size() < 2)
        return 2;
    // Filters with their stream (-1: the main one), in the order given.
    std::vector<std::pair<int, std::shared_ptr<VXFilter>>> filters;
    int measure = -1;
    bool measureStreams = false;
    bool measureInput = false;
    int stream = -1;
    for (qsizetype i = 2; i + 1 < args.size(); i += 2) {
        if (args[i] == QLatin1String("--measure")) {
            measure = args[i + 1].toInt();
        } else if (args[i] == QLatin1String("--measure-streams")) {
            measureStreams = true;
        } else if (args[i] == QLatin1String("--measure-input")) {
            measureInput = true;
        } else if (args[i] == QLatin1String("--stream")) {
            stream = args[i + 1].toInt();
        } else if (args[i] == QLatin1String("--filter")) {
            filters.emplace_back(stream, VXFilter::filterWithName(args[i + 1]));
            if (!filters.back().second)
                return 2;
        } else if (args[i] == QLatin1String("--attr") && !filters.empty()) {
            const qsizetype eq = args[i + 1].indexOf(QLatin1Char('='));
            filters.back().second->setValue(args[i + 1].mid(eq + 1), args[i + 1].left(eq));
        }
    }
    QString why;
    auto t = VXTranscoding::initWithInput(args[0], args[1], &why);
    if (!t) {
        channel.send("R " + oneLine(why).toUtf8());
        channel.send("E 1");
        return 0;
    }
    // Generous: pass 1 of a long file runs at about 40 times real time.
    const rlim_t seconds = rlim_t(120 + 2 * t->inputDuration() / 1000000);
    const rlimit cpu{seconds, seconds + 5};
    setrlimit(RLIMIT_CPU, &cpu);
    for (const auto &[index, f] : filters)
        index < 0 ? t->addAudioFilter(f) : t->addStreamFilter(index, f);
    if (measure >= 0)
        t->setMeasuresOutput(measure);
    if (measureStreams)
        t->setMeasuresOtherAudio();
    if (measureInput)
        t->setMeasuresInput();
    const int64_t result = t->transcodingHere([&](int32_t state, int64_t value) {
        if (state == VXTranscodingStateProgress)
            channel.send("P " + QByteArray::number(qint64(value)));
    });
    why = t->failureReason();
    const VXLoudness l = t->outputLoudness();
    const std::map<int, VXLoudness> others = t->otherAudioLoudness();
    const VXLoudness input = t->inputLoudness();
    t.reset();  // the filters print their records now
    auto figures = [](const VXLoudness &l) {
        return QByteArray::number(l.integrated, 'g', 17) + ' ' + QByteArray::number(l.truePeak, 'g', 17) + ' '
            + QByteArray::number(l.range, 'g', 17);
    };
    if (result == VXTranscodingCompleted && l.measured())
        channel.send("M " + figures(l));
    for (const auto &[index, loudness] : others)
        channel.send("S " + QByteArray::number(index) + ' ' + figures(loudness));
    if (result == VXTranscodingCompleted && input.measured())
        channel.send("I " + QByteArray::number(input.integrated, 'g', 17) + ' ' + QByteArray::number(input.range, 'g', 17)
                     + ' ' + QByteArray::number(input.threshold, 'g', 17));
    for (size_t i = 0; i < filters.size(); ++i) {
        if (filters[i].first >= 0)
            continue;  // only the main stream's print-outs are read
        const QByteArray printOut = VXFilterAccess::logState(*filters[i].second)->takePending();
        channel.send("F " + QByteArray::number(qulonglong(i)) + ' ' + QByteArray::number(printOut.size()), printOut);
    }
    if (!why.isEmpty())
        channel.send("R " + oneLine(why).toUtf8());
    channel.send("E " + QByteArray::number(qint64(result)));
    return 0;
}

int measure(Channel &channel, const QStringList &args)
{
    if (args.size() < 2)
        return 2;
    VXLoudness l;
    std::map<int, VXLoudness> others;
    QString why;
    const int flags = args[1].toInt();
    // Progress too: this is a job's whole first pass.
    auto progress = [&channel](int percent) { channel.send("P " + QByteArray::number(percent)); };
    if (!vx::measureHere(args[0], flags, &l, &why, nullptr, &others, progress)) {
        channel.send("R " + oneLine(why).toUtf8());
        channel.send("E 1");
        return 0;
    }
    auto figures = [](const VXLoudness &l) {
        return QByteArray::number(l.integrated, 'g', 17) + ' ' + QByteArray::number(l.truePeak, 'g', 17) + ' '
            + QByteArray::number(l.range, 'g', 17);
    };
    channel.send("M " + figures(l));
    for (const auto &[index, loudness] : others)
        channel.send("S " + QByteArray::number(index) + ' ' + figures(loudness));
    const QByteArray curve = VXCurvePrintOut(l);
    channel.send("F 0 " + QByteArray::number(curve.size()), curve);
    channel.send("E 0");
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
    VXAlbumLoudness album;
    QString why;
    const bool ok = VXMeasureAlbum(paths, &album, &why, nullptr, flags);
    const QByteArray text = VXAlbumPrintOut(album);
    channel.send("F 0 " + QByteArray::number(text.size()), text);
    if (!ok)
        channel.send("R " + oneLine(why).toUtf8());
    channel.send(ok ? "E 0" : "E 1");
    return 0;
}

void sendValue(Channel &channel, const QByteArray &name, const QByteArray &bytes)
{
    channel.send("V " + name + ' ' + QByteArray::number(bytes.size()), bytes);
}

// What an import learns of a file: its length and cover art, or why it is
// refused. (This process has no worker program set, so the context opens
// the file right here.)
int probe(Channel &channel, const QStringList &args)
{
    if (args.isEmpty())
        return 2;
    // Waiting on a slow or stuck disk costs no CPU time: a clock limit too.
    alarm(30);
    VXError error;
    const auto context = VXDemuxerContext::initWithFilename(args[0], &error);
    if (!context) {
        sendValue(channel, "code", QByteArray::number(error.code));
        sendValue(channel, "description", error.description.toUtf8());
        if (error.userInfo.contains(QLatin1String(VXTranscodingDRMProtected)))
            sendValue(channel, "drm", "1");
        channel.send("E 1");
        return 0;
    }
    sendValue(channel, "length", QByteArray::number(context->audioStreamLength()));
    // Decoded here first: a picture that crashes its decoder then costs the
    // cover only (the length is already sent), and one that does not decode
    // is not sent at all.
    if (const auto picture = context->attachPicture(); picture && !picture->cgImage().isNull())
        sendValue(channel, "picture", picture->encoded());
    channel.send("E 0");
    return 0;
}

int dispatch(Channel &channel, QStringList args)
{
    // Test seam (see WorkerRun::run): a stand-in for a file that crashes a decoder.
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
    return 2;
}

// A session (see WorkerSession): commands one after another, each read from
// the socket as "<size>\n" and that many bytes of '\0'-separated arguments,
// each with its own CPU seconds (args[0]) on top of what the earlier used.
int serve(Channel &channel, const QStringList &args)
{
    const rlim_t each = rlim_t(std::max(1, args.value(0).toInt()));
    FILE *requests = fdopen(::dup(1), "r");
    char *line = nullptr;
    size_t capacity = 0;
    while (requests && getline(&line, &capacity, requests) > 0) {
        QByteArray request(std::clamp<qsizetype>(QByteArray(line).trimmed().toLongLong(), 0, kWorkerMaxRequest), '\0');
        if (std::fread(request.data(), 1, size_t(request.size()), requests) != size_t(request.size()))
            break;
        rusage used{};
        getrusage(RUSAGE_SELF, &used);
        rlimit cpu{};
        getrlimit(RLIMIT_CPU, &cpu);
        cpu.rlim_cur = std::min(rlim_t(used.ru_utime.tv_sec + used.ru_stime.tv_sec + 1) + each, cpu.rlim_max);
        setrlimit(RLIMIT_CPU, &cpu);
        QStringList command;
        for (const QByteArray &a : request.split('\0'))
            if (!a.isEmpty())
                command << QString::fromUtf8(a);
        if (dispatch(channel, command) != 0)
            channel.send("E 1");
        alarm(0);
    }
    return 0;
}

} // namespace

int runWorkerCommand(QStringList args)
{
    Channel channel;
    VXSetLogSink([&channel](const QString &line) { channel.send("L " + oneLine(line).toUtf8()); });
    // Test seam (see WorkerRun::run): a run that tries to break out, caged.
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
        channel.send("N " + oneLine(note).toUtf8());
    if (!escape.isEmpty()) {
        channel.send("R " + oneLine(attemptEscapeForTest(escape)).toUtf8());
        channel.send("E 1");
        return 0;
    }
    if (args.value(0) == QLatin1String("serve"))
        return serve(channel, args.mid(1));
    return dispatch(channel, std::move(args));
}

} // namespace vx

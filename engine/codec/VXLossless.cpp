#include "engine/codec/VXLossless.h"

#include "engine/codec/VXBits.h"
#include "engine/codec/VXCancel.h"
#include "engine/codec/VXFileAt.h"
#include "engine/codec/VXGainRecord.h"
#include "engine/codec/VXLibav.h"
#include "engine/codec/VXMeasurePrivate.h"
#include "engine/codec/VXMp3Frame.h"
#include "engine/codec/VXOggOpus.h"
#include "engine/codec/VXProbe.h"

#include <QCborMap>
#include <QCborValue>
#include <QFile>
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

namespace vx {
namespace {

struct Fd {
    int fd = -1;
    ~Fd()
    {
        if (fd >= 0)
            ::close(fd);
    }
};

VXError ioError(const char *what)
{
    return VXError::because(QStringLiteral("cannot %1 the file: %2").arg(QLatin1String(what), QString::fromLocal8Bit(std::strerror(errno))));
}

// The whole input into the output; the kernel copies where it can, and
// both offsets have moved by what it copied when it cannot go on.
bool copyAll(int from, int to)
{
    for (;;) {
        const ssize_t n = ::copy_file_range(from, nullptr, to, nullptr, size_t(1) << 30, 0);
        if (n == 0)
            return true;
        if (n < 0 && errno != EINTR)
            break;
    }
    std::vector<uint8_t> buffer(size_t(1) << 16);
    for (;;) {
        const ssize_t got = ::read(from, buffer.data(), buffer.size());
        if (got == 0)
            return true;
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return false;
        for (ssize_t done = 0; done < got;) {
            const ssize_t put = ::write(to, buffer.data() + done, size_t(got - done));
            if (put < 0 && errno != EINTR)
                return false;
            done += std::max<ssize_t>(put, 0);
        }
    }
}

std::optional<GainRecord> previousRecord(const LosslessRequest &r, const QString &kind, VXError *error)
{
    if (r.previous.isEmpty()) {
        if (r.undo)
            *error = VXError::because(QStringLiteral("no change is recorded in the file"));
        return std::nullopt;
    }
    std::optional<GainRecord> record = GainRecord::parse(r.previous);
    if (!record || record->kind != kind)
        *error = VXError::because(QStringLiteral("the file's record of its change cannot be read"));
    return record;
}

VXResult<LosslessResult> opusGain(const LosslessRequest &r, int in, int out)
{
    VXResult<std::vector<opus::HeadPage>> heads = opus::findHeads(in);
    if (!heads)
        return heads.error();
    VXError error;
    const std::optional<GainRecord> previous = previousRecord(r, QStringLiteral("opus"), &error);
    if (!error.description.isEmpty())
        return error;
    if (previous && previous->opusGains.size() != heads->size())
        return VXError::because(QStringLiteral("the file's streams differ from those its record was made on"));
    LosslessResult result;
    result.kind = QStringLiteral("opus");
    const int delta = r.undo ? -previous->opusDelta : int(std::lround(r.gainDb * 256.0));
    GainRecord record;
    record.kind = result.kind;
    record.opusDelta = (previous ? previous->opusDelta : 0) + delta;
    if (previous)
        record.extra = previous->extra;  // what the engine keeps there (the tags it took away)
    for (size_t i = 0; i < heads->size(); ++i) {
        const opus::HeadPage &head = (*heads)[i];
        const int original = previous ? previous->opusGains[i] : head.gain;
        record.opusGains.push_back(original);
        const int gain = r.undo ? original : std::clamp(head.gain + delta, -32768, 32767);
        std::vector<uint8_t> page(size_t(head.size));
        if (!readAt(in, head.offset, page.data(), page.size()))
            return ioError("read");
        opus::setGain(page, head, int16_t(gain));
        if (!writeAt(out, head.offset, page.data(), page.size()))
            return ioError("write");
    }
    result.appliedDb = delta / 256.0;
    if (!r.undo)
        result.record = record.text();
    return result;
}

// Each frame's side information, at the file offset the demuxer gives its
// packet; the bytes there must be the packet's.
VXResult<LosslessResult> mp3Gain(const LosslessRequest &r, AVFormatContext *input, int stream, int in, int out,
                                 const VXCancel *cancel)
{
    VXError error;
    const std::optional<GainRecord> previous = previousRecord(r, QStringLiteral("mp3"), &error);
    if (!error.description.isEmpty())
        return error;
    StepEditor editor = r.undo ? StepEditor::undo(*previous) : StepEditor(r.steps, previous);
    PacketPtr packet = makePacket();
    std::vector<uint8_t> bytes;
    for (unsigned i = 0; i < input->nb_streams; ++i)
        input->streams[i]->discard = int(i) == stream ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
    while (av_read_frame(input, packet.get()) >= 0) {
        if (cancel && cancel->isCancelled())
            return VXCancelledError();
        const bool ours = packet->stream_index == stream;
        const int64_t pos = packet->pos;
        bytes.assign(packet->data, packet->data + packet->size);
        av_packet_unref(packet.get());
        if (!ours)
            continue;
        std::vector<uint8_t> there(bytes.size());
        if (pos < 0 || !readAt(in, pos, there.data(), there.size()) || there != bytes)
            return VXError::because(QStringLiteral("a frame is not where the file's index puts it"));
        const std::optional<mp3::Frame> frame = mp3::parseHeader(bytes.data(), bytes.size());
        if (!frame)
            return VXError::because(QStringLiteral("a frame at byte %1 is not MPEG Layer III with a set bit rate").arg(pos));
        const bool crcValid = mp3::crcMatches(*frame, bytes.data());
        mp3::GainField fields[4];
        const int n = mp3::gainFields(*frame, bytes.data(), fields);
        bool changed = false;
        for (int k = 0; k < n; ++k) {
            if (!fields[k].carriesAudio)
                continue;
            const int value = int(readBits(bytes.data(), fields[k].bit, 8));
            const std::optional<int> next = editor.next(value);
            if (!next)
                return VXError::because(QStringLiteral("the file's frames differ from those its record was made on"));
            if (*next != value) {
                writeBits(bytes.data(), fields[k].bit, 8, uint32_t(*next));
                changed = true;
            }
        }
        // A CRC that held before the change holds after it; a wrong one stays as it was.
        if (changed && crcValid)
            mp3::writeCrc(*frame, bytes.data());
        if (changed && !writeAt(out, pos, bytes.data(), size_t(frame->sideInfoOffset + frame->sideInfoBytes)))
            return ioError("write");
    }
    if (r.undo && !editor.matches(*previous))
        return VXError::because(QStringLiteral("the file's frames differ from those its record was made on"));
    if (editor.fields() == 0)
        return VXError::because(QStringLiteral("no MP3 frame carries audio"));
    LosslessResult result;
    result.kind = QStringLiteral("mp3");
    result.steps = r.undo ? -previous->steps : r.steps;
    result.appliedDb = result.steps * kGainStepDb;
    result.fields = editor.fields();
    result.clamped = editor.clampedNow();
    if (!r.undo) {
        GainRecord record = editor.record(result.kind);
        if (previous)
            record.extra = previous->extra;
        result.record = record.text();
    }
    return result;
}

} // namespace

VXResult<LosslessResult> losslessHere(const LosslessRequest &request, const VXCancel *cancel)
{
    QString why;
    int code = 0;
    InputPtr input = openInput(request.input, &why, &code);
    if (!input)
        return VXError::because(why, code);
    const int stream = av_find_best_stream(input.get(), AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
    if (stream < 0)
        return VXError::because(QStringLiteral("no audio stream"));
    const AVCodecID codec = input->streams[stream]->codecpar->codec_id;
    const QString container = QString::fromLatin1(input->iformat->name);
    const bool opus = codec == AV_CODEC_ID_OPUS && container == QLatin1String("ogg");
    const bool mp3 = codec == AV_CODEC_ID_MP3 && container == QLatin1String("mp3");
    if (codec == AV_CODEC_ID_AAC)
        return VXError::because(QStringLiteral("AAC's gain fields cannot be changed in place yet"));
    if (!opus && !mp3)
        return VXError::because(QStringLiteral("%1 in %2 has no gain field to change")
                                    .arg(QString::fromLatin1(avcodec_get_name(codec)), container));

    Fd in{::open(QFile::encodeName(request.input).constData(), O_RDONLY | O_CLOEXEC)};
    Fd out{::open(QFile::encodeName(request.output).constData(), O_WRONLY | O_TRUNC | O_CLOEXEC)};
    if (in.fd < 0 || out.fd < 0)
        return ioError("open");
    if (!copyAll(in.fd, out.fd))
        return ioError("copy");
    VXResult<LosslessResult> result = opus ? opusGain(request, in.fd, out.fd)
                                           : mp3Gain(request, input.get(), stream, in.fd, out.fd, cancel);
    if (!result)
        return result;
    if (::fsync(out.fd) != 0)
        return ioError("write");
    if (request.measureOutput >= 0) {
        VXResult<Measurement> measured = measureHere(request.output, request.measureOutput, cancel);
        if (!measured)
            return VXError::because(QStringLiteral("cannot measure the result: %1").arg(measured.reason()));
        result->output = measured->loudness;
    }
    return result;
}

QStringList losslessArguments(const LosslessRequest &r)
{
    QStringList args{QStringLiteral("lossless"), r.input, r.output, QStringLiteral("--gain"),
                     QString::number(r.gainDb, 'g', 17), QStringLiteral("--steps"), QString::number(r.steps),
                     QStringLiteral("--measure"), QString::number(r.measureOutput)};
    if (!r.previous.isEmpty())
        args << QStringLiteral("--previous") << r.previous;
    if (r.undo)
        args << QStringLiteral("--undo") << QStringLiteral("1");
    return args;
}

bool parseLosslessArguments(const QStringList &args, LosslessRequest *r)
{
    if (args.size() < 2)
        return false;
    r->input = args[0];
    r->output = args[1];
    for (qsizetype i = 2; i + 1 < args.size(); i += 2) {
        const QString &option = args[i], &value = args[i + 1];
        if (option == QLatin1String("--gain"))
            r->gainDb = value.toDouble();
        else if (option == QLatin1String("--steps"))
            r->steps = value.toInt();
        else if (option == QLatin1String("--measure"))
            r->measureOutput = value.toInt();
        else if (option == QLatin1String("--previous"))
            r->previous = value;
        else if (option == QLatin1String("--undo"))
            r->undo = value == QLatin1String("1");
        else
            return false;
    }
    return true;
}

QByteArray losslessToCbor(const LosslessResult &r)
{
    QCborMap m;
    m.insert(QLatin1String("kind"), r.kind);
    m.insert(QLatin1String("applied"), r.appliedDb);
    m.insert(QLatin1String("steps"), r.steps);
    m.insert(QLatin1String("fields"), qint64(r.fields));
    m.insert(QLatin1String("clamped"), qint64(r.clamped));
    m.insert(QLatin1String("record"), r.record);
    return m.toCborValue().toCbor();
}

LosslessResult losslessFromCbor(const QByteArray &bytes)
{
    const QCborMap m = QCborValue::fromCbor(bytes).toMap();
    LosslessResult r;
    r.kind = m.value(QLatin1String("kind")).toString();
    r.appliedDb = m.value(QLatin1String("applied")).toDouble();
    r.steps = int(m.value(QLatin1String("steps")).toInteger());
    r.fields = long(m.value(QLatin1String("fields")).toInteger());
    r.clamped = long(m.value(QLatin1String("clamped")).toInteger());
    r.record = m.value(QLatin1String("record")).toString();
    return r;
}

} // namespace vx

#include "engine/codec/VXProbe.h"

#include "engine/codec/VXCodecConstants.h"

#include <QFile>
#include <QFileInfo>
#include <QtEndian>
#include <limits>

namespace vx {

namespace {
bool headerDescribesAllStreams(const AVFormatContext *input)
{
    if (input->nb_streams == 0)
        return false;
    for (unsigned i = 0; i < input->nb_streams; ++i) {
        const AVCodecParameters *par = input->streams[i]->codecpar;
        if (par->codec_type != AVMEDIA_TYPE_AUDIO || par->sample_rate <= 0 || par->ch_layout.nb_channels <= 0)
            return false;
    }
    return true;
}

InputPtr open(const char *url, AVIOContext *io, QString *why, int *code)
{
    installLogRouting();
    AVFormatContext *raw = avformat_alloc_context();
    if (!raw) {
        *why = errorString(AVERROR(ENOMEM));
        *code = AVERROR(ENOMEM);
        return nullptr;
    }
    raw->pb = io;
    int err = avformat_open_input(&raw, url, nullptr, nullptr);
    if (err < 0) {
        *why = errorString(err);
        *code = err;
        return nullptr;
    }
    InputPtr input(raw);
    // When the header already describes every stream (WAV and the like),
    // the decoders only have to name their sample formats, which a few
    // packets do; the default 5 MB read made probing a short WAV cost 4 ms.
    if (headerDescribesAllStreams(input.get()))
        input->probesize = 32 * 1024;
    err = avformat_find_stream_info(input.get(), nullptr);
    if (err < 0) {
        *why = errorString(err);
        *code = err;
        return nullptr;
    }
    return input;
}
} // namespace

InputPtr openInput(const QString &path, QString *why, int *code)
{
    const QFileInfo info(path);
    // libav happily "opens" a folder and then fails on read; say it plainly.
    if (!info.exists() || !info.isFile()) {
        *why = info.exists() ? QStringLiteral("not a regular file") : QStringLiteral("no such file");
        *code = AVERROR(ENOENT);
        return nullptr;
    }
    return open(QFile::encodeName(path).constData(), nullptr, why, code);
}

InputPtr openInput(AVIOContext *io, QString *why, int *code)
{
    return open("", io, why, code);
}

bool hasDrmHeader(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) && hasDrmHeader(file);
}

bool hasDrmHeader(QIODevice &file)
{
    static const QByteArray asfHeader = QByteArray::fromHex("3026b2758e66cf11a6d900aa0062ce6c");
    // Content Encryption and Extended Content Encryption objects, as their
    // GUIDs are laid out on disk (first three fields little-endian).
    static const QByteArray contentEncryption = QByteArray::fromHex("fbb3112223bdd211b4b700a0c955fc6e");
    static const QByteArray extendedEncryption = QByteArray::fromHex("14e68a292226174cb935dae07ee9289c");

    const QByteArray start = file.read(24);
    if (start.size() < 24 || !start.startsWith(asfHeader))
        return false;
    constexpr quint64 kMaxHeader = 16 * 1024 * 1024;
    const quint64 headerSize = std::min(qFromLittleEndian<quint64>(start.constData() + 16), kMaxHeader);
    file.seek(0);
    const QByteArray header = file.read(qint64(headerSize));
    return header.indexOf(contentEncryption) >= 0 || header.indexOf(extendedEncryption) >= 0;
}

bool hasDrmStream(const AVFormatContext *input)
{
    static const uint32_t protectedTags[] = {MKTAG('d', 'r', 'm', 's'), MKTAG('d', 'r', 'm', 'i'),
                                             MKTAG('p', '6', '0', '8'), MKTAG('e', 'n', 'c', 'a'),
                                             MKTAG('e', 'n', 'c', 'v')};
    for (unsigned i = 0; i < input->nb_streams; ++i) {
        const AVStream *st = input->streams[i];
        if (st->codecpar->codec_type != AVMEDIA_TYPE_AUDIO)
            continue;
        for (uint32_t tag : protectedTags)
            if (st->codecpar->codec_tag == tag)
                return true;
        if (av_stream_get_side_data(st, AV_PKT_DATA_ENCRYPTION_INIT_INFO, nullptr))
            return true;
    }
    return false;
}

quint64 headerLength(const AVFormatContext *input, int audioIndex)
{
    const AVStream *st = input->streams[audioIndex];
    const AVRational ticks{1, int(VXTimebase)};
    if (st->duration != AV_NOPTS_VALUE && st->duration > 0)
        return quint64(av_rescale_q(st->duration, st->time_base, ticks));
    if (input->duration != AV_NOPTS_VALUE && input->duration > 0)
        return quint64(av_rescale_q(input->duration, AVRational{1, AV_TIME_BASE}, ticks));
    return 0;
}

quint64 packetLength(AVFormatContext *input, int audioIndex)
{
    const AVRational tb = input->streams[audioIndex]->time_base;
    auto packet = makePacket();
    int64_t first = AV_NOPTS_VALUE;
    int64_t end = AV_NOPTS_VALUE;
    while (av_read_frame(input, packet.get()) >= 0) {
        if (packet->stream_index == audioIndex) {
            const int64_t ts = packet->pts != AV_NOPTS_VALUE ? packet->pts : packet->dts;
            if (ts != AV_NOPTS_VALUE) {
                if (first == AV_NOPTS_VALUE || ts < first)
                    first = ts;
                const int64_t stop = ts + std::max<int64_t>(packet->duration, 0);
                if (end == AV_NOPTS_VALUE || stop > end)
                    end = stop;
            }
        }
        av_packet_unref(packet.get());
    }
    if (first == AV_NOPTS_VALUE || end <= first)
        return 0;
    return quint64(av_rescale_q(end - first, tb, AVRational{1, int(VXTimebase)}));
}

bool indexFirst(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) && indexFirst(file);
}

bool indexFirst(QIODevice &file)
{
    // Top-level boxes only: a size and a type each, sizes 1 (64-bit size
    // follows) and 0 (to the end) as the format defines them.
    qint64 offset = 0;
    for (int box = 0; box < 64 && file.seek(offset); ++box) {
        const QByteArray header = file.read(16);
        if (header.size() < 8)
            return false;
        const QByteArray type = header.mid(4, 4);
        if (type == "moov")
            return true;
        if (type == "mdat")
            return false;
        quint64 size = qFromBigEndian<quint32>(header.constData());
        if (size == 1 && header.size() == 16)
            size = qFromBigEndian<quint64>(header.constData() + 8);
        if (size < 8 || size > quint64(std::numeric_limits<qint64>::max() - offset))
            return false;
        offset += qint64(size);
    }
    return false;
}

QByteArray coverArt(const AVFormatContext *input)
{
    for (unsigned i = 0; i < input->nb_streams; ++i) {
        const AVStream *st = input->streams[i];
        if ((st->disposition & AV_DISPOSITION_ATTACHED_PIC) && st->attached_pic.size > 0)
            return QByteArray(reinterpret_cast<const char *>(st->attached_pic.data), st->attached_pic.size);
    }
    return {};
}

} // namespace vx

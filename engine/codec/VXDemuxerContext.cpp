#include "engine/codec/VXDemuxerContext.h"

#include "engine/codec/VXCodecConstants.h"
#include "engine/codec/VXLibav.h"
#include "engine/codec/VXProbe.h"

#include <QBuffer>
#include <QImageReader>

namespace {

constexpr qsizetype kMaxPictureBytes = 50 * 1024 * 1024;
constexpr int kMaxPictureSide = 16384;

VXError makeError(int code, const QString &description)
{
    VXError e;
    e.domain = QStringLiteral("VXCodec");
    e.code = code;
    e.description = description;
    return e;
}

// Header durations are missing from some raw streams and broken files: then
// the packets' own timestamps tell the length.
quint64 scanLength(AVFormatContext *fmt, int index)
{
    const AVRational tb = fmt->streams[index]->time_base;
    auto packet = vx::makePacket();
    int64_t first = AV_NOPTS_VALUE;
    int64_t end = AV_NOPTS_VALUE;
    while (av_read_frame(fmt, packet.get()) >= 0) {
        if (packet->stream_index == index) {
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
        context->d->length = scanLength(input.get(), index);
    if (context->d->length == 0) {
        err = makeError(AVERROR_INVALIDDATA, QStringLiteral("%1 holds no audio").arg(path));
        return nullptr;
    }
    return context;
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

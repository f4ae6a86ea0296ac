#include "engine/codec/VXDemuxerContext.h"

#include "engine/codec/VXCodecBackend.h"

#include <QBuffer>
#include <QImageReader>

namespace {

constexpr qsizetype kMaxPictureBytes = 50 * 1024 * 1024;
constexpr int kMaxPictureSide = 16384;

} // namespace

struct VXDemuxerContext::Private {
    quint64 length = 0;
    QByteArray picture;
};

VXDemuxerContext::VXDemuxerContext() : d(std::make_unique<Private>()) {}
VXDemuxerContext::~VXDemuxerContext() = default;

std::unique_ptr<VXDemuxerContext> VXDemuxerContext::initWithFilename(const QString &path, VXError *error)
{
    // With a worker, the file is opened there: a demuxer that crashes or
    // spins on it refuses the file, and this program goes on.
    VXResult<vx::ProbeResult> probed = vx::codecBackend().probe(path);
    if (!probed) {
        if (error)
            *error = probed.error();
        return nullptr;
    }
    std::unique_ptr<VXDemuxerContext> context(new VXDemuxerContext);
    context->d->length = probed->length;
    context->d->picture = std::move(probed->picture);
    return context;
}

quint64 VXDemuxerContext::audioStreamLength() const { return d->length; }

std::unique_ptr<VXAttachedPicture> VXDemuxerContext::attachPicture() const
{
    if (d->picture.isEmpty())
        return nullptr;
    return std::make_unique<VXAttachedPicture>(d->picture);
}

QImage VXAttachedPicture::cgImage(int maxSide) const
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
    if (maxSide > 0 && (size.width() > maxSide || size.height() > maxSide))
        reader.setScaledSize(size.scaled(maxSide, maxSide, Qt::KeepAspectRatio).expandedTo(QSize(1, 1)));
    QImage image;
    if (!reader.read(&image))
        return {};
    return image;
}

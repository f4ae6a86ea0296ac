// The row's cover art: decoded at the size a row shows it, and shared by the
// items whose files carry the same picture. A shop's cover is often 1000 px
// or more on a side, 4 MB once decoded: ten thousand rows would otherwise
// hold gigabytes, and each repaint would scale them down again.
#include "engine/VXAudioGain.h"

#include "engine/codec/VXDemuxerContext.h"

#include <QCache>
#include <QCryptographicHash>
#include <QMutex>

namespace {
// Enough for the covers of a few hundred albums; an album's tracks arrive
// together, so they meet their cover here.
constexpr qsizetype kCacheBytes = 16 * 1024 * 1024;

struct FaceCache {
    QMutex lock;
    QCache<QByteArray, QImage> images{kCacheBytes};
};

FaceCache &faceCache()
{
    static FaceCache *cache = new FaceCache;  // probes may run while statics die
    return *cache;
}
} // namespace

QImage VXAudioGain::faceForPicture(const QByteArray &encoded)
{
    if (encoded.isEmpty())
        return {};
    const QByteArray key = QCryptographicHash::hash(encoded, QCryptographicHash::Sha1);
    FaceCache &cache = faceCache();
    {
        QMutexLocker locker(&cache.lock);
        if (const QImage *shared = cache.images.object(key))
            return *shared;
    }
    // Decoded outside the lock: imports probe several files at once.
    const QImage image = VXAttachedPicture(encoded).cgImage(kFacePixels);
    if (image.isNull())
        return image;
    QMutexLocker locker(&cache.lock);
    if (const QImage *shared = cache.images.object(key))
        return *shared;
    cache.images.insert(key, new QImage(image), qMax<qsizetype>(1, image.sizeInBytes()));
    return image;
}

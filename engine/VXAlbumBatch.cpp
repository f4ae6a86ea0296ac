#include "engine/VXAlbumBatch.h"

#include "engine/codec/VXCancel.h"

#include <mutex>

VXAlbumBatch::VXAlbumBatch(QStringList paths) : m_paths(std::move(paths)) {}

std::optional<VXAlbumMember> VXAlbumBatch::member(const QString &path, const VXCancel *cancel,
                                                  QString *why)
{
    Album *album = nullptr;
    int track = -1;
    {
        // Reading tags takes a while for thousands of files: on a pool
        // thread, once, rather than on the window's.
        QMutexLocker locker(&m_groupLock);
        if (!m_grouped) {
            for (const VXAlbumGroup &group : VXGroupAlbums(m_paths)) {
                auto a = std::make_unique<Album>();
                a->name = group.name;
                for (const int m : group.members) {
                    m_place.insert(m_paths[m], {int(m_albums.size()), int(a->tracks.size())});
                    a->tracks << m_paths[m];
                }
                m_albums.push_back(std::move(a));
            }
            m_grouped = true;
        }
        const auto place = m_place.constFind(path);
        if (place == m_place.constEnd()) {
            *why = QStringLiteral("not one of the album batch's files");
            return std::nullopt;
        }
        album = m_albums[size_t(place->first)].get();
        track = place->second;
    }
    // Waiting for another track to measure the album can take a while: a
    // cancel is not kept waiting for it.
    while (!album->lock.tryLock(100)) {
        if (cancel && cancel->isCancelled())
            return std::nullopt;
    }
    const std::unique_lock<QMutex> locker(album->lock, std::adopt_lock);
    if (!album->measured) {
        if (cancel && cancel->isCancelled())
            return std::nullopt;
        QString reason;
        const bool ok = VXMeasureAlbum(album->tracks, &album->loudness, &reason, cancel);
        if (!ok && cancel && cancel->isCancelled())
            return std::nullopt;  // the next track measures it
        album->measured = true;
        album->reason = ok ? QString() : reason;
    }
    const VXAlbumLoudness &a = album->loudness;
    if (!album->reason.isEmpty() || !a.album.measured()) {
        *why = album->reason.isEmpty() ? QStringLiteral("the album could not be measured") : album->reason;
        return std::nullopt;
    }
    if (size_t(track) >= a.tracks.size() || !a.tracks[size_t(track)].measured()) {
        *why = a.reasons.value(track);
        if (why->isEmpty())
            *why = QStringLiteral("this track could not be measured");
        return std::nullopt;
    }
    return VXAlbumMember{album->name, a.tracks[size_t(track)], a.album};
}

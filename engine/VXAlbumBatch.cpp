#include "engine/VXAlbumBatch.h"

#include "engine/codec/VXCancel.h"

VXAlbumBatch::VXAlbumBatch(QStringList paths, int flags) : m_paths(std::move(paths)), m_flags(flags) {}

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
    // cancel wakes the wait. Declared before the lock, the stopper is
    // removed after the lock is released, since a cancel takes its own
    // lock and then the album's.
    const VXCancel::Stopper wake = VXCancel::onCancel(cancel, [album] {
        const std::lock_guard<std::mutex> guard(album->lock);
        album->changed.notify_all();
    });
    auto cancelled = [cancel] { return cancel && cancel->isCancelled(); };
    std::unique_lock<std::mutex> locker(album->lock);
    album->changed.wait(locker, [&] { return !album->measuring || cancelled(); });
    if (cancelled())
        return std::nullopt;
    if (!album->measured) {
        album->measuring = true;
        locker.unlock();
        VXAlbumLoudness loudness;
        QString reason;
        const bool ok = VXMeasureAlbum(album->tracks, &loudness, &reason, cancel, m_flags);
        locker.lock();
        album->measuring = false;
        album->changed.notify_all();
        if (!ok && cancelled())
            return std::nullopt;  // the next track measures it
        album->measured = true;
        album->loudness = std::move(loudness);
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

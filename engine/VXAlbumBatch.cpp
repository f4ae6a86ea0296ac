#include "engine/VXAlbumBatch.h"

#include "engine/VXMeasureCache.h"
#include "engine/codec/VXCancel.h"
#include "engine/codec/VXLoudnessMeter.h"

VXAlbumBatch::VXAlbumBatch(QStringList paths, int flags) : m_paths(std::move(paths)), m_flags(flags) {}

void VXAlbumBatch::groupLocked()
{
    if (m_grouped)
        return;
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

std::pair<VXAlbumBatch::Album *, int> VXAlbumBatch::place(const QString &path)
{
    // Reading tags takes a while for thousands of files: on a pool thread,
    // once, rather than on the window's.
    QMutexLocker locker(&m_groupLock);
    groupLocked();
    const auto place = m_place.constFind(path);
    if (place == m_place.constEnd())
        return {nullptr, -1};
    return {m_albums[size_t(place->first)].get(), place->second};
}

VXResult<VXAlbumMember> VXAlbumBatch::memberLocked(const Album &album, int track)
{
    const VXAlbumLoudness &a = album.loudness;
    if (!album.reason.isEmpty() || !a.album.measured())
        return VXError::because(album.reason.isEmpty() ? QStringLiteral("the album could not be measured")
                                                        : album.reason);
    if (size_t(track) >= a.tracks.size() || !a.tracks[size_t(track)].measured()) {
        const QString why = a.reasons.value(track);
        return VXError::because(why.isEmpty() ? QStringLiteral("this track could not be measured") : why);
    }
    return VXAlbumMember{album.name, a.tracks[size_t(track)], a.album};
}

VXResult<VXAlbumMember> VXAlbumBatch::member(const QString &path, const VXCancel *cancel)
{
    const auto [placedAlbum, track] = place(path);
    Album *const album = placedAlbum;
    if (!album)
        return VXError::because(QStringLiteral("not one of the album batch's files"));
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
        return VXCancelledError();
    if (!album->measured) {
        album->measuring = true;
        locker.unlock();
        VXResult<VXAlbumLoudness> loudness = VXMeasureAlbumWithCache(album->tracks, m_flags, cancel);
        locker.lock();
        album->measuring = false;
        album->changed.notify_all();
        if (!loudness && cancelled())
            return VXCancelledError();  // the next track measures it
        album->measured = true;
        album->loudness = loudness.valueOr({});
        album->reason = loudness.reason();
    }
    return memberLocked(*album, track);
}

std::optional<VXAlbumBatch::Report> VXAlbumBatch::report(const QString &path)
{
    const auto [album, track] = place(path);
    if (!album)
        return std::nullopt;
    const std::lock_guard<std::mutex> guard(album->lock);
    Report r;
    r.name = album->name;
    r.album = album->loudness.album;
    if (album->measured)
        r.why = memberLocked(*album, track).reason();
    return r;
}

QStringList VXAlbumBatch::leadTracks()
{
    QMutexLocker locker(&m_groupLock);
    groupLocked();
    QStringList leads;
    for (const auto &album : m_albums)
        if (!album->tracks.isEmpty())
            leads << album->tracks.first();
    return leads;
}

std::shared_ptr<VXAlbumBatch> VXAlbumBatch::prepareJobs(const QList<VXAudioGainPtr> &items,
                                                        const VXJobSettings &settings)
{
    std::shared_ptr<VXAlbumBatch> albums;
    if (settings.treatAsAlbums) {
        QStringList paths;
        for (const VXAudioGainPtr &item : items)
            paths << item->inputFile();
        albums = std::make_shared<VXAlbumBatch>(paths, settings.measureFlags() & VXMeasureDualMono);
    }
    for (const VXAudioGainPtr &item : items) {
        item->setJobSettings(settings);
        item->setAlbumBatch(albums);
    }
    return albums;
}

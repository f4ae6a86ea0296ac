#include "engine/VXMeasureCache.h"

#include "engine/VXMeasureStore.h"
#include "engine/codec/VXCancel.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>

#include <sys/stat.h>
#include <ctime>

namespace {

// A file written this recently may be written again within the same tick
// of its clock (ext4 stamps with the kernel's coarse clock, FAT in 2 s
// steps) and keep its stamp: its figures are not kept.
constexpr qint64 kSettledNs = 3'000'000'000;

qint64 nowNs()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return qint64(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

// What the caller did not ask for goes: a batch of thousands keeps no
// curves it will not draw.
void keepAsked(vx::Measurement &m, int flags)
{
    if (!(flags & VXMeasureCurve)) {
        m.loudness.steps = {};
        m.loudness.shortTerm = {};
    }
}

} // namespace

void VXMeasureCache::configure(const Location &where)
{
    QString path;
    if (where.kind == Location::Default)
        path = defaultPath();
    else if (where.kind == Location::File)
        path = QFileInfo(where.path).isDir() ? QDir(where.path).filePath(QStringLiteral("measurements.sqlite"))
                                              : QFileInfo(where.path).absoluteFilePath();
    vxcache::Store::instance().setPath(path);
}

QString VXMeasureCache::defaultPath()
{
    const QString folder = QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation);
    return folder.isEmpty() ? QString() : folder + QStringLiteral("/evenloud/measurements.sqlite");
}

QString VXMeasureCache::path() { return vxcache::Store::instance().path(); }

std::optional<VXMeasureCache::Key> VXMeasureCache::keyOf(const QString &path, bool dualMono)
{
    struct stat st {};
    if (::stat(QFile::encodeName(path).constData(), &st) != 0 || !S_ISREG(st.st_mode))
        return std::nullopt;
    Key key;
    key.device = qint64(st.st_dev);
    key.inode = qint64(st.st_ino);
    key.size = qint64(st.st_size);
    key.modifiedNs = qint64(st.st_mtim.tv_sec) * 1'000'000'000 + st.st_mtim.tv_nsec;
    static const QString meter = VXMeterIdentity(false);
    key.meter = dualMono ? meter + QStringLiteral("+dual-mono") : meter;
    return key;
}

std::optional<vx::Measurement> VXMeasureCache::find(const Key &key, bool withCurve)
{
    return vxcache::Store::instance().find(key, withCurve);
}

void VXMeasureCache::store(const Key &key, const vx::Measurement &measurement)
{
    vxcache::Store::instance().store(key, measurement);
}

VXResult<VXMeasured> VXMeasureWithCache(const QString &path, int flags, const VXCancel *cancel,
                                        const vx::Progress &progress, const VXMeasureStep &measure)
{
    const bool dualMono = flags & VXMeasureDualMono;
    const std::optional<VXMeasureCache::Key> before
        = VXMeasureCache::path().isEmpty() ? std::nullopt : VXMeasureCache::keyOf(path, dualMono);
    if (before) {
        if (std::optional<vx::Measurement> kept = VXMeasureCache::find(*before, flags & VXMeasureCurve)) {
            VXMeasured hit;
            static_cast<vx::Measurement &>(hit) = std::move(*kept);
            hit.cached = true;
            return hit;
        }
        flags |= VXMeasureTruePeak | VXMeasureCurve | VXMeasureOtherStreams;
    }
    const qint64 started = nowNs();
    VXResult<vx::Measurement> measured
        = measure ? measure(flags) : vx::codecBackend().measure(path, flags, cancel, progress);
    if (!measured)
        return measured.error();
    // Kept only when the file is the one that was measured, whole and settled.
    if (before && !(cancel && cancel->isCancelled()) && before->modifiedNs < started - kSettledNs
        && VXMeasureCache::keyOf(path, dualMono) == before)
        VXMeasureCache::store(*before, *measured);
    VXMeasured fresh;
    static_cast<vx::Measurement &>(fresh) = std::move(*measured);
    keepAsked(fresh, flags);
    return fresh;
}

std::optional<VXLoudness> VXCachedLoudness(const QString &path, int flags)
{
    if (VXMeasureCache::path().isEmpty())
        return std::nullopt;
    const std::optional<VXMeasureCache::Key> key = VXMeasureCache::keyOf(path, flags & VXMeasureDualMono);
    std::optional<vx::Measurement> kept = key ? VXMeasureCache::find(*key, flags & VXMeasureCurve) : std::nullopt;
    if (!kept)
        return std::nullopt;
    return std::move(kept->loudness);
}

VXResult<VXAlbumLoudness> VXMeasureAlbumWithCache(const QStringList &paths, int flags, const VXCancel *cancel)
{
    const int trackFlags = VXMeasureTruePeak | VXMeasureCurve | (flags & VXMeasureDualMono);
    VXAlbumLoudness out;
    for (const QString &path : paths) {
        if (cancel && cancel->isCancelled())
            return VXCancelledError();
        const VXResult<VXMeasured> track = VXMeasureWithCache(path, trackFlags, cancel);
        if (!track && (VXIsCancelled(track.error()) || (cancel && cancel->isCancelled())))
            return VXCancelledError();
        out.tracks.push_back(track ? track->loudness : VXLoudness());
        out.reasons << track.reason();
    }
    out.album = VXAlbumOf(out.tracks);
    for (VXLoudness &t : out.tracks)
        t.steps = {}, t.shortTerm = {};
    if (!out.album.measured())
        return VXError::because(QStringLiteral("no track of the album could be measured"));
    return out;
}

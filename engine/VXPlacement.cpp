#include "engine/VXPlacement.h"

#include "engine/codec/VXUtilCodec.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMutex>
#include <QSet>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <system_error>
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace VXPlacement {
namespace {

QByteArray native(const QString &path) { return QFile::encodeName(path); }

QString errnoText(int err) { return QString::fromStdString(std::generic_category().message(err)); }

struct FdCloser {
    int fd = -1;
    ~FdCloser()
    {
        if (fd >= 0)
            ::close(fd);
    }
};

// umask can only be read by setting it, which would briefly give other
// threads' new files the wrong mode: it is read while the program is still
// being loaded, before main() and before any thread exists.
const mode_t g_umask = [] {
    const mode_t mask = ::umask(022);
    ::umask(mask);
    return mask;
}();

void syncFolder(const QString &folder)
{
    FdCloser dir{::open(native(folder).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    if (dir.fd >= 0)
        ::fsync(dir.fd);
}

bool copyByReadWrite(int from, int to)
{
    char buffer[1 << 16];
    for (;;) {
        const ssize_t got = ::read(from, buffer, sizeof buffer);
        if (got == 0)
            return true;
        if (got < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        for (ssize_t done = 0; done < got;) {
            const ssize_t put = ::write(to, buffer + done, size_t(got - done));
            if (put < 0) {
                if (errno == EINTR)
                    continue;
                return false;
            }
            done += put;
        }
    }
}

// The kernel copies without the data passing through us (and clones where
// the file system can). Since Linux 5.19 it refuses between file systems of
// different types (a tmpfs temporary folder and the user's disk), and older
// kernels or some file systems refuse the call: both offsets are where the
// kernel left them, so plain reads and writes carry on from there.
bool copyContent(int from, int to)
{
    for (;;) {
        const ssize_t moved = ::copy_file_range(from, nullptr, to, nullptr, size_t(1) << 30, 0);
        if (moved == 0)
            return true;
        if (moved > 0 || errno == EINTR)
            continue;
        if (errno == EXDEV || errno == ENOSYS || errno == EINVAL || errno == EOPNOTSUPP)
            return copyByReadWrite(from, to);
        return false;
    }
}

// A staging name: "." + name + ".evenloud-" + six characters of mkostemp's.
bool isStagingName(const char *name)
{
    const size_t n = std::strlen(name);
    constexpr size_t tail = sizeof(".evenloud-XXXXXX") - 1;
    return name[0] == '.' && n > tail + 1 && std::strncmp(name + n - tail, ".evenloud-", 10) == 0;
}

// Hidden staging files that a killed placement left beside the user's files.
// One is taken only when no live process holds its lock (a placement keeps
// its staged file locked from the moment it has its name until it is done)
// and it is more than half a second old, which covers the instant between
// its creation and its lock. Each folder is looked at once per process.
void sweepStale(const QString &folder)
{
    static QMutex lock;
    static QSet<QString> swept;
    {
        QMutexLocker locker(&lock);
        if (swept.contains(folder))
            return;
        swept.insert(folder);
    }
    FdCloser dirFd{::open(native(folder).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    DIR *dir = dirFd.fd >= 0 ? ::fdopendir(dirFd.fd) : nullptr;
    if (!dir)
        return;
    dirFd.fd = -1;  // the DIR owns it now
    timespec now {};
    ::clock_gettime(CLOCK_REALTIME, &now);
    auto ageMsecs = [&now](const struct stat &st) {
        return (now.tv_sec - st.st_mtim.tv_sec) * 1000 + (now.tv_nsec - st.st_mtim.tv_nsec) / 1000000;
    };
    while (const dirent *entry = ::readdir(dir)) {
        struct stat st {};
        if (!isStagingName(entry->d_name)
            || ::fstatat(::dirfd(dir), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(st.st_mode)
            || st.st_uid != ::geteuid() || ageMsecs(st) < 500)
            continue;
        FdCloser file{::openat(::dirfd(dir), entry->d_name, O_RDONLY | O_NOFOLLOW | O_CLOEXEC)};
        if (file.fd >= 0 && ::flock(file.fd, LOCK_EX | LOCK_NB) == 0)
            ::unlinkat(::dirfd(dir), entry->d_name, 0);
    }
    ::closedir(dir);
}

// The source brought next to its destination under a hidden name: same file
// system, complete and on disk, so that a final rename() publishes it whole.
// The staged file stays locked while this lives (see sweepStale).
struct Staged {
    QString path;
    bool renamed = false;  // src was moved here (else copied)
    FdCloser locked;
};

VXResult<> stage(const QString &src, const QString &folder, const QString &name, mode_t mode,
                 const struct stat *owner, Staged *staged)
{
    // "." + name + ".evenloud-XXXXXX" within a name's 255 bytes.
    const QString hidden = QLatin1Char('.') + leftBytes(name, 255 - 17) + QStringLiteral(".evenloud-XXXXXX");
    QByteArray pattern = native(QDir(folder).filePath(hidden));
    sweepStale(folder);
    FdCloser &out = staged->locked;
    out.fd = ::mkostemp(pattern.data(), O_CLOEXEC);
    if (out.fd < 0) {
        return VXError::because(QStringLiteral("Cannot create a file in %1: %2").arg(folder, errnoText(errno)));
    }
    ::flock(out.fd, LOCK_EX);
    staged->path = QFile::decodeName(pattern);
    // Locked before it takes the staged name, so that the name never holds
    // an unlocked file a sweep could take for a dead placement's.
    FdCloser moving{::open(native(src).constData(), O_RDONLY | O_CLOEXEC)};
    if (moving.fd >= 0)
        ::flock(moving.fd, LOCK_EX);
    if (moving.fd >= 0 && ::rename(native(src).constData(), pattern.constData()) == 0) {
        staged->renamed = true;
        std::swap(out.fd, moving.fd);
    } else if (moving.fd < 0 || errno == EXDEV) {
        FdCloser in{::open(native(src).constData(), O_RDONLY | O_CLOEXEC)};
        if (in.fd < 0 || !copyContent(in.fd, out.fd)) {
            const QString why = QStringLiteral("Cannot copy %1 to %2: %3").arg(src, folder, errnoText(errno));
            ::unlink(pattern.constData());
            return VXError::because(why);
        }
    } else {
        const QString why = QStringLiteral("Cannot move %1 to %2: %3").arg(src, folder, errnoText(errno));
        ::unlink(pattern.constData());
        return VXError::because(why);
    }
    if (out.fd < 0 || ::fchmod(out.fd, mode) != 0 || ::fsync(out.fd) != 0) {
        return VXError::because(QStringLiteral("Cannot write %1: %2").arg(staged->path, errnoText(errno)));
    }
    if (owner)
        (void)!::fchown(out.fd, owner->st_uid, owner->st_gid);  // allowed only for some; not worth failing
    return {};
}

// A failure hands the temporary file back where the job left it.
void unstage(const Staged &staged, const QString &src)
{
    if (staged.path.isEmpty())
        return;
    if (!staged.renamed || ::rename(native(staged.path).constData(), native(src).constData()) != 0)
        ::unlink(native(staged.path).constData());
}

// Once the staged file holds its final name: the name is made durable, and
// a copy's source (a move across file systems) goes.
Placed settle(const Staged &staged, const QString &src, const QString &folder, const QString &path)
{
    syncFolder(folder);
    if (!staged.renamed)
        ::unlink(native(src).constData());
    return {path, {}};
}

QMutex g_noReplaceFallbackLock;

// rename() that fails with EEXIST instead of replacing. The kernel does it
// atomically where it can; link()+unlink() where renameat2 is not supported.
int renameNoReplace(const QString &from, const QString &to)
{
    const QByteArray a = native(from), b = native(to);
#ifdef RENAME_NOREPLACE
    if (::renameat2(AT_FDCWD, a.constData(), AT_FDCWD, b.constData(), RENAME_NOREPLACE) == 0)
        return 0;
    if (errno != EINVAL && errno != ENOSYS && errno != ENOTSUP)
        return errno;
#endif
    if (::link(a.constData(), b.constData()) == 0) {
        ::unlink(a.constData());
        return 0;
    }
    if (errno == EEXIST || (errno != EPERM && errno != ENOTSUP && errno != EOPNOTSUPP))
        return errno;
    // No hard links either (FAT, some network shares): at least our own jobs
    // never collide.
    QMutexLocker locker(&g_noReplaceFallbackLock);
    struct stat st {};
    if (::lstat(b.constData(), &st) == 0)
        return EEXIST;
    return ::rename(a.constData(), b.constData()) == 0 ? 0 : errno;
}

} // namespace

Result placeInFolder(const QString &src, const QString &folder, const QString &base, const QString &ext,
                     const BeforePublish &beforePublish)
{
    Staged staged;
    const QString name = ext.isEmpty() ? base : base + QLatin1Char('.') + ext;
    if (const VXResult<> staging = stage(src, folder, name, 0666 & ~g_umask, nullptr, &staged); !staging) {
        unstage(staged, src);
        return staging.error();
    }
    // Another job or program may take the free name between our look and our
    // rename; then the next free name is chosen.
    for (int attempt = 0; attempt < 1000; ++attempt) {
        const QString dest = VXUtilCodec::createUniformFileName(base, ext, folder);
        if (beforePublish) {
            if (const VXResult<> told = beforePublish(dest, VXFileId::ofDescriptor(staged.locked.fd)); !told) {
                unstage(staged, src);
                return told.error();
            }
        }
        const int err = renameNoReplace(staged.path, dest);
        if (err == EEXIST)
            continue;
        if (err != 0) {
            unstage(staged, src);
            return VXError::because(QStringLiteral("Cannot move %1 to %2: %3").arg(src, dest, errnoText(err)));
        }
        return settle(staged, src, folder, dest);
    }
    unstage(staged, src);
    return VXError::because(QStringLiteral("No free name for %1 in %2").arg(name, folder));
}

namespace {

// Best effort: attributes the file system or our rights refuse are skipped.
void copyExtendedAttributes(const QString &from, int toFd)
{
    FdCloser in{::open(native(from).constData(), O_RDONLY | O_CLOEXEC)};
    if (in.fd < 0)
        return;
    const ssize_t size = ::flistxattr(in.fd, nullptr, 0);
    if (size <= 0)
        return;
    QByteArray names(size, '\0');
    const ssize_t got = ::flistxattr(in.fd, names.data(), size_t(names.size()));
    for (const QByteArray &name : names.left(std::max<ssize_t>(got, 0)).split('\0')) {
        if (name.isEmpty())
            continue;
        const ssize_t length = ::fgetxattr(in.fd, name.constData(), nullptr, 0);
        if (length < 0)
            continue;
        QByteArray value(length, '\0');
        if (::fgetxattr(in.fd, name.constData(), value.data(), size_t(value.size())) == length)
            (void)::fsetxattr(toFd, name.constData(), value.constData(), size_t(value.size()), 0);
    }
}

} // namespace

Result replaceFile(const QString &src, const QString &target, bool keepModificationTime,
                   const BeforePublish &beforePublish)
{
    // A link is followed: the file the user sees through it is the one replaced.
    char resolved[PATH_MAX];
    const QString real = ::realpath(native(target).constData(), resolved) ? QFile::decodeName(resolved) : target;
    struct stat st {};
    if (::stat(native(real).constData(), &st) != 0) {
        return VXError::because(QStringLiteral("Cannot read %1: %2").arg(target, errnoText(errno)), kBeforeRemoval);
    }
    const QFileInfo realInfo(real);
    const QString folder = realInfo.path();
    Staged staged;
    if (const VXResult<> staging = stage(src, folder, realInfo.fileName(), st.st_mode & 07777, &st, &staged);
        !staging) {
        unstage(staged, src);
        return VXError::because(staging.reason(), kBeforeRemoval);
    }
    copyExtendedAttributes(real, staged.locked.fd);
    if (keepModificationTime) {
        const struct timespec times[2] = {st.st_atim, st.st_mtim};
        ::futimens(staged.locked.fd, times);
    }
    ::fsync(staged.locked.fd);  // the attributes too, before the name is given up
    if (beforePublish) {
        if (const VXResult<> told = beforePublish(real, VXFileId::ofDescriptor(staged.locked.fd)); !told) {
            unstage(staged, src);
            return VXError::because(told.reason(), kBeforeRemoval);
        }
    }
    if (::rename(native(staged.path).constData(), native(real).constData()) != 0) {
        const QString why = QStringLiteral("Cannot move %1 to %2: %3").arg(staged.path, real, errnoText(errno));
        unstage(staged, src);
        return VXError::because(why);
    }
    Placed placed = settle(staged, src, folder, target);
    if (st.st_nlink > 1)
        placed.warning = QStringLiteral("the file has %1 hard links; the other names keep the old audio")
                             .arg(st.st_nlink);
    return placed;
}

QString leftBytes(const QString &name, int maxBytes)
{
    QString cut = name;
    while (!cut.isEmpty() && QFile::encodeName(cut).size() > maxBytes)
        cut.chop(cut.size() >= 2 && cut.at(cut.size() - 1).isLowSurrogate() ? 2 : 1);
    return cut;
}

} // namespace VXPlacement

#include "engine/VXTempDir.h"

#include "engine/VXPlacement.h"

#include "engine/codec/VXFilter.h"
#include "engine/codec/VXUtilCodec.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMutex>
#include <QRandomGenerator>

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

namespace {

QMutex g_lock;       // guards the two below, and name choice in reserveFile
QString g_dir;       // empty until created
int g_lockFd = -1;   // our flock()ed lock file, -1 when we hold none

QByteArray native(const QString &path) { return QFile::encodeName(path); }

// The root is shared by this user's processes only; 0700 keeps other users
// from reading unfinished audio or planting links in it.
bool ensureRoot(const QString &root)
{
    if (::mkdir(native(root).constData(), 0700) != 0 && errno != EEXIST)
        return false;
    struct stat st {};
    if (::lstat(native(root).constData(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != ::geteuid())
        return false;
    if ((st.st_mode & 0777) != 0700)
        ::chmod(native(root).constData(), 0700);
    return true;
}

// The lock file appears under its final name already locked (created under a
// scratch name, locked, then renamed), so a cleaner never mistakes a
// directory being set up for a dead one.
bool acquire(const QString &root)
{
    const QString name = QStringLiteral("%1-%2").arg(::getpid()).arg(QRandomGenerator::global()->generate(), 8, 16, QLatin1Char('0'));
    const QString scratch = root + QStringLiteral("/.") + name + QStringLiteral(".new");
    const QString lockPath = root + QLatin1Char('/') + name + QStringLiteral(".lock");
    const int fd = ::open(native(scratch).constData(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0)
        return false;
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0 || ::rename(native(scratch).constData(), native(lockPath).constData()) != 0) {
        ::unlink(native(scratch).constData());
        ::close(fd);
        return false;
    }
    g_lockFd = fd;
    g_dir = root + QLatin1Char('/') + name;
    return true;
}

// True when the lock at lockPath is held by nobody: its owner has died (or
// has released it). The caller then holds it through *fd.
bool lockIsStale(const QString &lockPath, int *fd)
{
    *fd = ::open(native(lockPath).constData(), O_RDWR | O_CLOEXEC);
    if (*fd < 0)
        return errno == ENOENT;
    if (::flock(*fd, LOCK_EX | LOCK_NB) == 0)
        return true;
    ::close(*fd);
    *fd = -1;
    return false;
}

void cleanSiblings(const QString &root)
{
    const QDir dir(root);
    const QFileInfoList entries = dir.entryInfoList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot | QDir::System);
    for (const QFileInfo &entry : entries) {
        const QString name = entry.fileName();
        QString base;
        if (entry.isDir() && !entry.isSymLink())
            base = name;
        else if (name.endsWith(QLatin1String(".lock")))
            base = name.chopped(5);
        else
            continue;  // a scratch lock of a process starting up right now
        if (!g_dir.isEmpty() && root + QLatin1Char('/') + base == g_dir)
            continue;
        const QString lockPath = root + QLatin1Char('/') + base + QStringLiteral(".lock");
        int fd = -1;
        if (!lockIsStale(lockPath, &fd))
            continue;
        QDir(root + QLatin1Char('/') + base).removeRecursively();
        if (fd >= 0) {
            ::unlink(native(lockPath).constData());
            ::close(fd);
        }
    }
}

QString pathLocked()
{
    const QString root = VXTempDir::rootPath();
    if (!ensureRoot(root))
        return {};
    if (g_lockFd < 0 && !acquire(root))
        return {};
    if (::mkdir(native(g_dir).constData(), 0700) != 0 && errno != EEXIST)
        return {};
    // The filters' logs too: swept with the rest if this process is killed.
    VXFilter::setLogFolder(g_dir);
    return g_dir;
}

} // namespace

QString VXTempDir::rootPath()
{
    static const QString base = [] {
        // Whole encoded files go here, videos of several GB among them. Many
        // systems keep /tmp in RAM; unless the user chose a folder, the
        // disk-backed /var/tmp takes them.
        if (!qEnvironmentVariableIsSet("TMPDIR")) {
            struct statfs tmp {};
            if (::statfs("/tmp", &tmp) == 0 && tmp.f_type == TMPFS_MAGIC && ::access("/var/tmp", W_OK | X_OK) == 0) {
                struct statfs var {};
                if (::statfs("/var/tmp", &var) == 0 && var.f_type != TMPFS_MAGIC)
                    return QStringLiteral("/var/tmp");
            }
        }
        return QDir::tempPath();
    }();
    return base + QStringLiteral("/evenloud-%1").arg(::geteuid());
}

QString VXTempDir::path()
{
    QMutexLocker locker(&g_lock);
    return pathLocked();
}

QString VXTempDir::reserveFile(const QString &base, const QString &ext)
{
    QMutexLocker locker(&g_lock);
    const QString folder = pathLocked();
    if (folder.isEmpty())
        return {};
    // createUniformFileName does not create the file; creating it here, under
    // the lock, is what keeps the next job from choosing the same name.
    // Room for the extension and a counter within a name's 255 bytes; the
    // final name is chosen apart from this one.
    const QString shortBase = VXPlacement::leftBytes(base, 255 - 16 - int(QFile::encodeName(ext).size()));
    for (int attempt = 0; attempt < 100; ++attempt) {
        const QString candidate = VXUtilCodec::createUniformFileName(shortBase, ext, folder);
        const int fd = ::open(native(candidate).constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (fd >= 0) {
            ::close(fd);
            return candidate;
        }
        if (errno != EEXIST)
            return {};
    }
    return {};
}

void VXTempDir::clean()
{
    QMutexLocker locker(&g_lock);
    const QString root = rootPath();
    if (g_lockFd >= 0) {
        QDir(g_dir).removeRecursively();
        ::unlink(native(g_dir + QStringLiteral(".lock")).constData());
        ::close(g_lockFd);
        g_lockFd = -1;
        g_dir.clear();
    }
    if (QFileInfo(root).isDir())
        cleanSiblings(root);
}

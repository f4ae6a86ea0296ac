#include "engine/VXWatchFolder.h"

#include "engine/codec/VXLog.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSocketNotifier>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/inotify.h>
#include <unistd.h>
#include <vector>

namespace {

QString errnoText(int err) { return QString::fromLocal8Bit(std::strerror(err)); }

QString childPath(const QString &folder, const QString &name)
{
    return folder.endsWith(QLatin1Char('/')) ? folder + name : folder + QLatin1Char('/') + name;
}

bool isBelow(const QString &path, const QString &folder)
{
    return path == folder || path.startsWith(childPath(folder, QString()));
}

} // namespace

VXWatchFolder::VXWatchFolder(const QString &folder, const Options &options, QObject *parent)
    : QObject(parent), m_root(QDir::cleanPath(QFileInfo(folder).absoluteFilePath())), m_options(options),
      m_settling(options.settleMsecs)
{
    m_timer.setTimerType(Qt::CoarseTimer);
    connect(&m_timer, &QTimer::timeout, this, &VXWatchFolder::tick);
}

VXWatchFolder::~VXWatchFolder() { stop(); }

VXResult<> VXWatchFolder::start()
{
    if (m_watching)
        return {};
    const QFileInfo info(m_root);
    if (!info.isDir())
        return VXError::because(QStringLiteral("%1: no such folder").arg(m_root));
    if (!info.isReadable() || !info.isExecutable())
        return VXError::because(QStringLiteral("%1: cannot be read").arg(m_root));
    m_excluded.clear();
    for (const QString &excluded : m_options.excluded) {
        const QFileInfo e(excluded);
        const QString canonical = e.exists() ? e.canonicalFilePath() : QDir::cleanPath(e.absoluteFilePath());
        // A folder that holds the watched one excludes nothing below it.
        if (!isBelow(info.canonicalFilePath(), canonical))
            m_excluded << canonical;
    }
    m_fd = m_options.scanOnly ? -1 : ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (m_fd >= 0) {
        m_notifier = new QSocketNotifier(m_fd, QSocketNotifier::Read, this);
        connect(m_notifier, &QSocketNotifier::activated, this, &VXWatchFolder::readEvents);
    } else if (!m_options.scanOnly) {
        // Out of inotify instances (fs.inotify.max_user_instances): scanning still works.
        VXLog(QStringLiteral("Cannot watch %1 for changes (%2): it is scanned instead").arg(m_root, errnoText(errno)));
    }
    m_clock.start();
    m_watching = true;
    emit watchingChanged();
    addTree(m_root);
    updateTimer();
    return {};
}

void VXWatchFolder::stop()
{
    if (!m_watching)
        return;
    m_watching = false;
    m_timer.stop();
    // Possibly from inside the notifier's own signal.
    if (m_notifier) {
        m_notifier->setEnabled(false);
        m_notifier->deleteLater();
    }
    m_notifier = nullptr;
    if (m_fd >= 0)
        ::close(m_fd);  // drops every watch with it
    m_fd = -1;
    m_folders.clear();
    m_taken.clear();
    for (const QString &path : m_settling.paths())
        m_settling.forget(path);
    emit watchingChanged();
}

int VXWatchFolder::scannedFolderCount() const
{
    return int(std::count_if(m_folders.cbegin(), m_folders.cend(), [](const Folder &f) { return f.scanned; }));
}

bool VXWatchFolder::isExcluded(const QString &canonical) const
{
    return std::any_of(m_excluded.cbegin(), m_excluded.cend(),
                       [&](const QString &excluded) { return isBelow(canonical, excluded); });
}

bool VXWatchFolder::addTree(const QString &path)
{
    const QFileInfo info(path);
    const bool root = path == m_root;
    if (!info.isDir() || (!root && (info.fileName().startsWith(QLatin1Char('.')) || isExcluded(info.canonicalFilePath()))))
        return false;
    Folder folder{path, VXFileId::of(path), m_options.scanOnly};
    int key = 0;
    if (m_fd >= 0) {
        const quint32 mask = IN_CLOSE_WRITE | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_EXCL_UNLINK
            | (m_options.recursive ? IN_CREATE : 0);
        key = ::inotify_add_watch(m_fd, QFile::encodeName(path).constData(), mask);
        if (key < 0)  // fs.inotify.max_user_watches reached, most likely
            VXLog(QStringLiteral("Cannot watch %1 for changes (%2): it is scanned instead").arg(path, errnoText(errno)));
    }
    if (key > 0 && m_folders.contains(key)) {
        // The kernel gives one watch per folder: this one was renamed, or
        // is reached again through a link.
        if (!(VXFileId::of(m_folders[key].path).sameFile(folder.id)))
            renameFolder(key, path);
        return false;
    }
    if (key <= 0) {
        for (const Folder &known : std::as_const(m_folders))
            if (known.id.sameFile(folder.id))
                return false;
        key = m_nextUnwatchedKey--;
        folder.scanned = true;
    }
    folder.scanned = folder.scanned || !VXWatchRules::folderGivesCloseEvents(path);
    if (root)
        m_rootKey = key;
    m_folders.insert(key, folder);
    scanFolder(key);
    return true;
}

void VXWatchFolder::scanFolder(int key)
{
    const auto it = m_folders.constFind(key);
    if (it == m_folders.constEnd())
        return;
    const Folder folder = *it;
    QDir dir(folder.path);
    if (!dir.exists()) {
        dropFolder(key);
        return;
    }
    // Sorted as a file manager shows them: the files there at the start go
    // in an order people can predict.
    const QFileInfoList entries
        = dir.entryInfoList(QDir::Files | QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name | QDir::IgnoreCase | QDir::DirsLast);
    QHash<QString, VXFileId> stillThere;
    const QHash<QString, VXFileId> taken = m_taken.value(folder.path);
    for (const QFileInfo &entry : entries) {
        if (!m_watching)
            return;
        const QString path = childPath(folder.path, entry.fileName());
        if (entry.isDir()) {
            if (m_options.recursive)
                addTree(path);
        } else if (VXWatchRules::isCandidateName(entry.fileName())) {
            if (folder.scanned && taken.contains(entry.fileName()))
                stillThere.insert(entry.fileName(), taken.value(entry.fileName()));
            consider(path, folder, true);
        }
    }
    if (folder.scanned) {
        // What left the folder is forgotten; what stayed keeps its mark
        // (take() may have added new ones meanwhile).
        QHash<QString, VXFileId> &marks = m_taken[folder.path];
        for (auto mark = marks.begin(); mark != marks.end();)
            mark = stillThere.contains(mark.key()) || !taken.contains(mark.key()) ? std::next(mark) : marks.erase(mark);
    }
}

void VXWatchFolder::consider(const QString &path, const Folder &folder, bool foundByScan)
{
    const VXFileId id = VXFileId::of(path);
    if (!id.exists()) {
        m_settling.forget(path);
        return;
    }
    if (!foundByScan) {
        take(path, id, folder);
        return;
    }
    if (folder.scanned && m_taken.value(folder.path).value(QFileInfo(path).fileName()) == id)
        return;
    // On a local disk a file last written long ago is complete: its writer
    // would have closed it. A network mount's clock may not be ours.
    const qint64 age = QDateTime::currentMSecsSinceEpoch() - id.mtimeNs / 1000000;
    if (!folder.scanned && age >= m_options.settleMsecs) {
        take(path, id, folder);
        return;
    }
    if (m_settling.observe(path, id, m_clock.elapsed()))
        take(path, id, folder);
    updateTimer();
}

void VXWatchFolder::take(const QString &path, const VXFileId &id, const Folder &folder)
{
    m_settling.forget(path);
    if (folder.scanned)
        m_taken[folder.path].insert(QFileInfo(path).fileName(), id);
    emit fileReady(path);
}

void VXWatchFolder::readEvents()
{
    struct Event {
        int wd;
        quint32 mask;
        QString name;
    };
    std::vector<Event> events;
    alignas(inotify_event) char buffer[64 * 1024];
    for (;;) {
        const ssize_t n = ::read(m_fd, buffer, sizeof buffer);
        if (n <= 0)
            break;  // EAGAIN: all read
        for (ssize_t at = 0; at < n;) {
            const auto *e = reinterpret_cast<const inotify_event *>(buffer + at);
            events.push_back({e->wd, e->mask, e->len ? QFile::decodeName(e->name) : QString()});
            at += ssize_t(sizeof(inotify_event) + e->len);
        }
    }
    // Handled once read: a report may lead its receiver to do anything.
    for (const Event &e : events) {
        if (!m_watching)
            return;
        handleEvent(e.wd, e.mask, e.name);
    }
}

void VXWatchFolder::handleEvent(int wd, quint32 mask, const QString &name)
{
    if (mask & IN_Q_OVERFLOW) {
        // Events were lost: what is there now is looked at again.
        rescanAll();
        return;
    }
    const auto it = m_folders.constFind(wd);
    if (it == m_folders.constEnd())
        return;
    const Folder folder = *it;
    if (mask & (IN_DELETE_SELF | IN_UNMOUNT | IN_IGNORED)) {
        dropFolder(wd);
        return;
    }
    if (mask & IN_MOVE_SELF) {
        // Renamed within the tree, its new name was taken up already (the
        // parent's event comes first); moved out, it is dropped.
        if (wd == m_rootKey || !VXFileId::of(folder.path).sameFile(folder.id))
            dropFolder(wd);
        return;
    }
    const QString path = childPath(folder.path, name);
    if (mask & IN_ISDIR) {
        if (m_options.recursive && (mask & (IN_CREATE | IN_MOVED_TO)))
            addTree(path);
        return;
    }
    if ((mask & (IN_CLOSE_WRITE | IN_MOVED_TO)) && VXWatchRules::isCandidateName(name) && QFileInfo(path).isFile())
        consider(path, folder, false);
}

void VXWatchFolder::dropFolder(int key)
{
    const auto it = m_folders.find(key);
    if (it == m_folders.end())
        return;
    const QString path = it->path;
    if (key == m_rootKey) {
        stop();
        emit lost(QStringLiteral("%1 was removed, moved or unmounted").arg(m_root));
        return;
    }
    // The folders below go with it.
    for (auto f = m_folders.begin(); f != m_folders.end();) {
        if (!isBelow(f->path, path)) {
            ++f;
            continue;
        }
        if (f.key() > 0 && m_fd >= 0)
            ::inotify_rm_watch(m_fd, f.key());
        m_taken.remove(f->path);
        f = m_folders.erase(f);
    }
    updateTimer();
}

void VXWatchFolder::renameFolder(int key, const QString &path)
{
    const QString old = m_folders[key].path;
    for (Folder &f : m_folders) {
        if (!isBelow(f.path, old))
            continue;
        const QString renamed = path + f.path.mid(old.size());
        if (m_taken.contains(f.path))
            m_taken.insert(renamed, m_taken.take(f.path));
        f.path = renamed;
    }
}

void VXWatchFolder::rescanAll()
{
    const QList<int> keys = m_folders.keys();
    for (const int key : keys) {
        if (!m_watching)
            return;
        scanFolder(key);
    }
}

void VXWatchFolder::tick()
{
    const qint64 now = m_clock.elapsed();
    if (now - m_lastScan >= kScanMsecs - m_timer.interval() / 2) {
        m_lastScan = now;
        const QList<int> keys = m_folders.keys();
        for (const int key : keys) {
            const auto it = m_folders.constFind(key);
            if (it != m_folders.constEnd() && it->scanned && m_watching)
                scanFolder(key);
        }
    }
    // Files found while they might still have been written.
    for (const QString &path : m_settling.paths()) {
        if (!m_watching)
            return;
        const QString parent = QFileInfo(path).path();
        const auto folder = std::find_if(m_folders.cbegin(), m_folders.cend(), [&](const Folder &f) { return f.path == parent; });
        if (folder == m_folders.cend())
            m_settling.forget(path);
        else
            consider(path, *folder, true);
    }
    updateTimer();
}

void VXWatchFolder::updateTimer()
{
    if (!m_watching) {
        m_timer.stop();
        return;
    }
    const bool scanning = std::any_of(m_folders.cbegin(), m_folders.cend(), [](const Folder &f) { return f.scanned; });
    if (!scanning && m_settling.isEmpty()) {
        m_timer.stop();
        return;
    }
    const int interval = m_settling.isEmpty() ? kScanMsecs : int(qBound(qint64(100), m_options.settleMsecs / 4, qint64(1000)));
    if (!m_timer.isActive() || m_timer.interval() != interval)
        m_timer.start(interval);
}

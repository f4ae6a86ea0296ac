#pragma once

#include "engine/VXFileId.h"
#include "engine/VXWatchRules.h"
#include "engine/codec/VXError.h"

#include <QElapsedTimer>
#include <QHash>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QTimer>

class QSocketNotifier;

// A hot folder: tells of each file in it that is complete, the ones there
// at the start first, then each as it arrives. A file is complete when its
// writer closes it (inotify's IN_CLOSE_WRITE) or it is moved in whole
// (IN_MOVED_TO), so a file still being written is never reported; a
// temporary name renamed to its final one is reported once, under the final
// name. Where the file system sends no such events (network mounts, see
// VXWatchRules), or the kernel refuses a watch, the folder is scanned every
// two seconds and a file reported once its size and modification time have
// been still for the settle time. Files found by a scan on a local disk
// (at the start, in a new sub-folder, after the kernel's queue overflowed)
// are reported at once when they were last written longer ago than that,
// else once they have been still as long.
//
// The same file may be reported again (closed twice, found by a rescan):
// what was done already is for the user of the watch to know (VXJournal).
// With nothing arriving the watch costs nothing: no timer runs unless a
// file is settling or a folder must be scanned. Lives on one thread; reports
// through the signal on that thread.
class VXWatchFolder : public QObject {
    Q_OBJECT
    Q_PROPERTY(QString folder READ folder CONSTANT)
    Q_PROPERTY(bool watching READ isWatching NOTIFY watchingChanged)
public:
    struct Options {
        bool recursive = false;  // sub-folders too, new ones as they appear
        qint64 settleMsecs = 5000;
        // Folders never looked into: where results, done and failed files go
        // when they lie inside the watched folder.
        QStringList excluded;
        // Scan only, as for files written by other machines on a network
        // mount, even where close events would come.
        bool scanOnly = false;
    };

    VXWatchFolder(const QString &folder, const Options &options, QObject *parent = nullptr);
    ~VXWatchFolder() override;

    // Starts watching, then reports the files already there (before it
    // returns, for those last written long enough ago). An error when the
    // folder is missing or cannot be read.
    VXResult<> start();
    void stop();
    bool isWatching() const { return m_watching; }
    QString folder() const { return m_root; }
    // Folders (the watched one and its sub-folders) being scanned because no
    // close events come from them.
    int scannedFolderCount() const;

    // The interval of those scans.
    static constexpr int kScanMsecs = 2000;

signals:
    // path: absolute, below the watched folder.
    void fileReady(const QString &path);
    // The watched folder went away (removed, renamed, unmounted); the watch
    // has stopped.
    void lost(const QString &reason);
    void watchingChanged();

private:
    struct Folder {
        QString path;
        VXFileId id;           // which folder the path named when watched
        bool scanned = false;  // no close events: found by scanning
    };
    void readEvents();
    void handleEvent(int wd, quint32 mask, const QString &name);
    // Watches path and what is below it, listing the files found; false when
    // it is passed over (hidden, excluded, already watched).
    bool addTree(const QString &path);
    void scanFolder(int key);
    void dropFolder(int key);
    void renameFolder(int key, const QString &path);
    void rescanAll();
    // A file a scan found: reported now, or left to settle.
    void consider(const QString &path, const Folder &folder, bool foundByScan);
    void take(const QString &path, const VXFileId &id, const Folder &folder);
    void tick();
    void updateTimer();
    bool isExcluded(const QString &canonical) const;

    const QString m_root;
    const Options m_options;
    QStringList m_excluded;  // canonical
    int m_fd = -1;
    QSocketNotifier *m_notifier = nullptr;
    // By inotify watch descriptor; folders the kernel would not watch get
    // negative keys of their own.
    QHash<int, Folder> m_folders;
    int m_nextUnwatchedKey = -1;
    int m_rootKey = 0;
    VXSettleTracker m_settling;
    // In scanned folders, what was reported already, by folder then name,
    // so that a file still there at the next scan is not reported again.
    QHash<QString, QHash<QString, VXFileId>> m_taken;
    QTimer m_timer;
    QElapsedTimer m_clock;
    qint64 m_lastScan = 0;
    bool m_watching = false;
};

#pragma once

// What a watched folder takes, and when: the names that are never a
// finished file, the file systems that tell of a file's close, and how long
// a file must stay still where none does. Decisions only; VXWatchFolder
// applies them.

#include "engine/VXFileId.h"

#include <QHash>
#include <QString>
#include <QtGlobal>

namespace VXWatchRules {

// A name the watch may take: not hidden (rsync's and most editors' files
// in the making, ".name.XXXXXX"), no backup or lock mark ("name~",
// "#name#", "~$name"), and one of the supported extensions, which the names
// of downloads and exports in progress (".part", ".crdownload", ".tmp",
// ".!qB", ...) never end in.
bool isCandidateName(const QString &name);

// Whether a file system, by statfs()'s f_type, reports the closes of files
// written by other machines or processes. Network and user-space file
// systems (NFS, SMB/CIFS, FUSE, 9p, Ceph, AFS...) do not, or only for writes
// made on this machine.
bool typeGivesCloseEvents(qint64 fsType);
// The same for the file system holding folder; false when it cannot tell.
bool folderGivesCloseEvents(const QString &folder);

// Where a watch keeps its journal when none is named: one file per pair of
// folders under $XDG_STATE_HOME/evenloud (else ~/.local/state/evenloud), so
// a watch restarted on the same folders remembers what it did, and two
// watches of the same pair (the app and the service) never run at once.
// destination: the output folder, or empty when results replace the inputs.
QString defaultJournalPath(const QString &watched, const QString &destination);

} // namespace VXWatchRules

// Which files have kept the same size and modification time for long
// enough: where a file system sends no close event, being still is the only
// sign that a writer is done. Times are a monotonic clock in milliseconds,
// passed in so that the rule can be checked without waiting.
class VXSettleTracker {
public:
    explicit VXSettleTracker(qint64 settleMsecs) : m_settleMsecs(settleMsecs) {}

    // Records how path looks at nowMsecs; true once it has looked the same
    // (an existing file, the same size and mtime) for settleMsecs, and then
    // the path is forgotten.
    bool observe(const QString &path, const VXFileId &id, qint64 nowMsecs);
    void forget(const QString &path) { m_seen.remove(path); }
    bool isEmpty() const { return m_seen.isEmpty(); }
    QList<QString> paths() const { return m_seen.keys(); }
    qint64 settleMsecs() const { return m_settleMsecs; }

private:
    struct Seen {
        VXFileId id;
        qint64 since = 0;
    };
    const qint64 m_settleMsecs;
    QHash<QString, Seen> m_seen;
};

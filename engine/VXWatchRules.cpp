#include "engine/VXWatchRules.h"

#include "engine/VXImport.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <linux/magic.h>
#include <sys/vfs.h>

namespace VXWatchRules {

bool isCandidateName(const QString &name)
{
    if (name.isEmpty() || name.startsWith(QLatin1Char('.')) || name.startsWith(QLatin1Char('#'))
        || name.startsWith(QLatin1String("~$")) || name.endsWith(QLatin1Char('~')) || name.endsWith(QLatin1Char('#')))
        return false;
    return VXImport::passesExtensionTest(name);
}

bool typeGivesCloseEvents(qint64 fsType)
{
    // Not every one is in linux/magic.h.
    constexpr qint64 kGfs2 = 0x01161970;
    constexpr qint64 kLustre = 0x0BD00BD0;
    switch (quint32(fsType)) {
    case NFS_SUPER_MAGIC:
    case SMB_SUPER_MAGIC:
    case CIFS_SUPER_MAGIC:
    case SMB2_SUPER_MAGIC:
    case FUSE_SUPER_MAGIC:  // sshfs, rclone, gvfs, virtiofs, ...
    case V9FS_MAGIC:
    case CEPH_SUPER_MAGIC:
    case AFS_SUPER_MAGIC:
    case AFS_FS_MAGIC:
    case CODA_SUPER_MAGIC:
    case NCP_SUPER_MAGIC:
    case OCFS2_SUPER_MAGIC:
    case quint32(kGfs2):
    case quint32(kLustre):
        return false;
    default:
        return true;
    }
}

bool folderGivesCloseEvents(const QString &folder)
{
    struct statfs fs {};
    if (::statfs(QFile::encodeName(folder).constData(), &fs) != 0)
        return false;
    return typeGivesCloseEvents(qint64(fs.f_type));
}

QString defaultJournalPath(const QString &watched, const QString &destination)
{
    QString state = QString::fromLocal8Bit(qgetenv("XDG_STATE_HOME"));
    if (state.isEmpty() || QDir::isRelativePath(state))
        state = QDir::homePath() + QStringLiteral("/.local/state");
    const QString in = QDir::cleanPath(QFileInfo(watched).absoluteFilePath());
    const QString out = destination.isEmpty() ? QStringLiteral("in-place")
                                              : QDir::cleanPath(QFileInfo(destination).absoluteFilePath());
    const QByteArray hash = QCryptographicHash::hash((in + QLatin1Char('\n') + out).toUtf8(), QCryptographicHash::Sha256);
    // The folder's name first, so that a person finds the right file.
    QString name;
    for (const QChar c : QFileInfo(in).fileName().left(40))
        name += c.isLetterOrNumber() || c == QLatin1Char('-') || c == QLatin1Char('_') ? c : QLatin1Char('_');
    if (name.isEmpty())
        name = QStringLiteral("folder");
    return QStringLiteral("%1/evenloud/watch-%2-%3.journal")
        .arg(state, name, QString::fromLatin1(hash.toHex().left(16)));
}

} // namespace VXWatchRules

bool VXSettleTracker::observe(const QString &path, const VXFileId &id, qint64 nowMsecs)
{
    if (!id.exists()) {
        m_seen.remove(path);
        return false;
    }
    auto it = m_seen.find(path);
    if (it == m_seen.end() || !(it->id == id)) {
        m_seen.insert(path, {id, nowMsecs});
        return false;
    }
    if (nowMsecs - it->since < m_settleMsecs)
        return false;
    m_seen.erase(it);
    return true;
}

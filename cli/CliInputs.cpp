#include "cli/CliInputs.h"

#include "cli/CliOptions.h"
#include "cli/CliRun.h"
#include "cli/CliSignals.h"
#include "engine/VXImport.h"
#include "engine/VXJournal.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <sys/stat.h>
#include <unordered_set>

namespace {

struct FileKey {
    dev_t device;
    ino_t inode;
    bool operator==(const FileKey &) const = default;
};
struct FileKeyHash {
    size_t operator()(const FileKey &k) const { return std::hash<quint64>()(quint64(k.inode) * 31u + quint64(k.device)); }
};

// 64-bit FNV-1a: the same number for the same bytes on every machine and in
// every version, which std::hash and qHash do not promise.
quint64 fnv1a(const QByteArray &bytes)
{
    quint64 h = 14695981039346656037ull;
    for (const char c : bytes) {
        h ^= quint8(c);
        h *= 1099511628211ull;
    }
    return h;
}

} // namespace

bool cliShardTakes(const QString &relative, int k, int n)
{
    if (n <= 1)
        return true;
    return fnv1a(QDir::cleanPath(relative).toUtf8()) % quint64(n) == quint64(k - 1);
}

QStringList cliListEntries(const QByteArray &list, bool nulSeparated)
{
    QStringList entries;
    for (QByteArray entry : list.split(nulSeparated ? '\0' : '\n')) {
        if (!nulSeparated && entry.endsWith('\r'))
            entry.chop(1);
        if (!entry.isEmpty())
            entries << QFile::decodeName(entry);
    }
    return entries;
}

std::optional<QString> cliReadFilesFrom(const CliOptions &opt, QStringList *entries)
{
    QFile file;
    const bool stdinList = opt.filesFrom == QLatin1String("-");
    const bool opened = stdinList ? file.open(stdin, QIODevice::ReadOnly) : (file.setFileName(opt.filesFrom), file.open(QIODevice::ReadOnly));
    if (!opened)
        return QStringLiteral("cannot read the list %1: %2").arg(opt.filesFrom, file.errorString());
    *entries = cliListEntries(file.readAll(), opt.nulSeparated);
    return std::nullopt;
}

CliInputs cliGatherInputs(const CliOptions &opt, const QStringList &inputs, VXJournal *journal,
                          const std::function<void(CliFileResult)> &missing)
{
    CliInputs found;
    std::unordered_set<FileKey, FileKeyHash> seen;
    for (const QString &path : inputs) {
        if (CliSignals::pending())
            break;
        const QFileInfo info(path);
        if (!info.exists()) {
            cliSay(QStringLiteral("evenloud-cli: %1: No such file or folder").arg(path));
            CliFileResult r;
            r.input = path;
            r.outcome = CliOutcome::Missing;
            r.reason = QStringLiteral("no such file or folder");
            missing(r);
            continue;
        }
        if (!info.isDir() && !VXImport::passesExtensionTest(path)) {
            cliSay(QStringLiteral("evenloud-cli: %1: skipped, not a supported extension").arg(path));
            continue;
        }
        // A file's share is decided by its path below the folder named, so
        // machines that mount the library in different places agree.
        const QDir root(info.isDir() ? path : QString());
        VXImport::walk({path}, opt.recursive, CliSignals::pending(), [&](const QString &file) {
            struct stat st {};
            if (::stat(QFile::encodeName(file).constData(), &st) != 0 || !seen.insert({st.st_dev, st.st_ino}).second)
                return;
            const QString relative = info.isDir() ? root.relativeFilePath(file) : path;
            if (!cliShardTakes(relative, opt.shardK, opt.shardN)) {
                ++found.otherShards;
                return;
            }
            if (journal && journal->wasDone(file)) {
                ++found.doneEarlier;
                return;
            }
            found.files.push_back(file);
        }, true);
    }
    return found;
}

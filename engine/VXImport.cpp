#include "engine/VXImport.h"

#include <QFile>
#include <QSet>

#include <dirent.h>
#include <sys/stat.h>

#include <memory>
#include <unordered_set>
#include <utility>

namespace VXImport {

QStringList supportAudioGainOwnExts()
{
    return {QStringLiteral("mp3"), QStringLiteral("m4a"), QStringLiteral("mp4"),
            QStringLiteral("mov"), QStringLiteral("m4v")};
}

QStringList supportExtenalFormats()
{
    return {QStringLiteral("wma"), QStringLiteral("wav"), QStringLiteral("ac3"),
            QStringLiteral("flac"), QStringLiteral("mp2"), QStringLiteral("ogg")};
}

QStringList supportAudioGainExts()
{
    return supportAudioGainOwnExts() + supportExtenalFormats();
}

QString pathExtension(const QString &path)
{
    const qsizetype slash = path.lastIndexOf(QLatin1Char('/'));
    const qsizetype dot = path.lastIndexOf(QLatin1Char('.'));
    if (dot < 0 || dot < slash)
        return {};
    return path.mid(dot + 1);
}

bool passesExtensionTest(const QString &path)
{
    static const QSet<QString> exts = [] {
        const QStringList list = supportAudioGainExts();
        return QSet<QString>(list.begin(), list.end());
    }();
    const QString ext = pathExtension(path);
    return !ext.isEmpty() && exts.contains(ext.toLower());
}

QString inputKey(const QString &path)
{
    return path.toLower();
}

bool isSameInput(const QString &a, const QString &b)
{
    return inputKey(a) == inputKey(b);
}

namespace {

struct DirCloser {
    void operator()(DIR *dir) const { closedir(dir); }
};
using DirPtr = std::unique_ptr<DIR, DirCloser>;

// A folder's identity once links are followed: the same folder reached by
// two paths (a link back to an ancestor) has one key.
using FolderId = std::pair<dev_t, ino_t>;

struct FolderIdHash {
    size_t operator()(const FolderId &id) const noexcept
    {
        return qHashMulti(0, quint64(id.first), quint64(id.second));
    }
};

class Walker {
public:
    Walker(bool recursive, bool skipHidden, const std::atomic<bool> &cancel,
           const std::function<void(const QString &)> &onFile)
        : m_recursive(recursive), m_skipHidden(skipHidden), m_cancel(cancel), m_onFile(onFile)
    {
    }

    void walkPath(const QString &path)
    {
        struct stat st {};
        if (stat(QFile::encodeName(path).constData(), &st) != 0)
            return;
        if (S_ISDIR(st.st_mode))
            walkFolder(path, st);
        else if (passesExtensionTest(path))
            m_onFile(path);
    }

private:
    bool cancelled() const { return m_cancel.load(std::memory_order_relaxed); }

    void walkFolder(const QString &folder, const struct stat &st)
    {
        if (!m_seen.insert({st.st_dev, st.st_ino}).second)
            return;
        const QByteArray encoded = QFile::encodeName(folder);
        DirPtr dir(opendir(encoded.constData()));
        if (!dir)
            return;
        const QString prefix = folder.endsWith(QLatin1Char('/')) ? folder : folder + QLatin1Char('/');
        while (const dirent *entry = readdir(dir.get())) {
            if (cancelled())
                return;
            const char *name = entry->d_name;
            if (qstrcmp(name, ".") == 0 || qstrcmp(name, "..") == 0 || (m_skipHidden && name[0] == '.'))
                continue;
            const QString path = prefix + QFile::decodeName(name);
            struct stat entrySt {};
            if (stat(QFile::encodeName(path).constData(), &entrySt) != 0)
                continue; // vanished, or a dangling link
            if (S_ISDIR(entrySt.st_mode)) {
                if (!m_recursive)
                    continue;
                if (cancelled())
                    return;
                walkFolder(path, entrySt);
            } else if (passesExtensionTest(path)) {
                m_onFile(path);
            }
        }
    }

    const bool m_recursive;
    const bool m_skipHidden;
    const std::atomic<bool> &m_cancel;
    const std::function<void(const QString &)> &m_onFile;
    std::unordered_set<FolderId, FolderIdHash> m_seen;
};

} // namespace

void walk(const QStringList &paths, bool recursive, const std::atomic<bool> &cancel,
          const std::function<void(const QString &file)> &onFile, bool skipHidden)
{
    Walker walker(recursive, skipHidden, cancel, onFile);
    for (const QString &path : paths) {
        walker.walkPath(path);
        if (cancel.load(std::memory_order_relaxed))
            break;
    }
}

} // namespace VXImport

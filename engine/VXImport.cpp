#include "engine/VXImport.h"

#include <QDir>
#include <QFileInfo>
#include <QSet>

#include <algorithm>

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

bool passesExtensionTest(const QString &path)
{
    static const QSet<QString> exts = [] {
        const QStringList list = supportAudioGainExts();
        return QSet<QString>(list.begin(), list.end());
    }();
    const QString ext = QFileInfo(path).suffix();
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

class Walker {
public:
    Walker(bool recursive, bool skipHidden, const std::atomic<bool> &cancel,
           const std::function<void(const QString &)> &onFile)
        : m_recursive(recursive), m_skipHidden(skipHidden), m_cancel(cancel), m_onFile(onFile)
    {
    }

    void walkPath(const QString &path)
    {
        const QFileInfo info(path);
        if (info.isDir())
            walkFolder(path, info);
        else if (info.exists() && passesExtensionTest(path))
            m_onFile(path);
    }

private:
    bool cancelled() const { return m_cancel.load(std::memory_order_relaxed); }

    void walkFolder(const QString &folder, const QFileInfo &info)
    {
        // Links are followed; a folder reached again (a link back to an
        // ancestor) is passed over, so loops end.
        const QString id = info.canonicalFilePath();
        if (m_seen.contains(id))
            return;
        m_seen.insert(id);
        QDir::Filters filters = QDir::Dirs | QDir::Files | QDir::NoDotAndDotDot;
        if (!m_skipHidden)
            filters |= QDir::Hidden;
        // Sorted as a file manager lists them, whatever order the file system
        // keeps: the same folder imports the same way on every machine.
        // Names equal but for case keep one order too.
        QFileInfoList entries = QDir(folder).entryInfoList(filters, QDir::Unsorted);
        std::sort(entries.begin(), entries.end(), [](const QFileInfo &a, const QFileInfo &b) {
            const int folded = a.fileName().compare(b.fileName(), Qt::CaseInsensitive);
            return folded != 0 ? folded < 0 : a.fileName() < b.fileName();
        });
        const QString prefix = folder.endsWith(QLatin1Char('/')) ? folder : folder + QLatin1Char('/');
        for (const QFileInfo &entry : entries) {
            if (cancelled())
                return;
            const QString path = prefix + entry.fileName();
            if (entry.isDir()) {
                if (!m_recursive)
                    continue;
                if (cancelled())
                    return;
                walkFolder(path, entry);
            } else if (passesExtensionTest(path)) {
                m_onFile(path);
            }
        }
    }

    const bool m_recursive;
    const bool m_skipHidden;
    const std::atomic<bool> &m_cancel;
    const std::function<void(const QString &)> &m_onFile;
    QSet<QString> m_seen;
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

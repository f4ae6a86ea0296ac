#include "engine/VXAlbum.h"


#include <QFile>
#include <QFileInfo>
#include <QHash>

#include <taglib/fileref.h>
#include <taglib/tpropertymap.h>

namespace {

QString fromTag(const TagLib::String &s) { return QString::fromStdString(s.to8Bit(true)).trimmed(); }

} // namespace

QList<VXAlbumGroup> VXGroupAlbums(const QStringList &paths)
{
    QList<VXAlbumGroup> groups;
    QHash<QString, int> byKey;
    for (int i = 0; i < paths.size(); ++i) {
        QString album, artist;
        // No audio properties: the tags are all we need, and they are quick.
        const TagLib::FileRef ref(QFile::encodeName(paths[i]).constData(), false);
        if (!ref.isNull() && ref.tag()) {
            album = fromTag(ref.tag()->album());
            const TagLib::PropertyMap properties = ref.file()->properties();
            const auto it = properties.find("ALBUMARTIST");
            if (it != properties.end() && !it->second.isEmpty())
                artist = fromTag(it->second.front());
        }
        // A tagged album and a folder never share a key.
        const QString folder = QFileInfo(paths[i]).path();
        const QString key = album.isEmpty() ? QStringLiteral("d\n") + folder
                                            : QStringLiteral("a\n") + artist + QLatin1Char('\n') + album;
        auto it = byKey.find(key);
        if (it == byKey.end()) {
            const QString name = album.isEmpty() ? folder
                : artist.isEmpty()               ? album
                                                 : artist + QStringLiteral(" - ") + album;
            it = byKey.insert(key, int(groups.size()));
            groups.append({name, {}});
        }
        groups[*it].members << i;
    }
    return groups;
}

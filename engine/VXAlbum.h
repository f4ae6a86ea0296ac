#pragma once

// Album mode: which files form an album.

#include <QList>
#include <QString>
#include <QStringList>

struct VXAlbumGroup {
    QString name;        // "Artist - Album", or the folder of untagged files
    QList<int> members;  // indices into the paths grouped, in their order
};

// Files with the same album tag (and album artist, when one is there) form
// an album wherever they lie; a file without an album tag belongs to its
// folder's. Tags are read with TagLib, in the order of paths.
QList<VXAlbumGroup> VXGroupAlbums(const QStringList &paths);

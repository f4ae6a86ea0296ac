#pragma once

#include <QString>
#include <QtGlobal>

// What makes a file this file and this content as far as the file system
// can tell without reading it: device and inode, size and modification time
// to the nanosecond. A replace gives a path a new inode; an edit in place a
// new mtime.
struct VXFileId {
    quint64 device = 0;
    quint64 inode = 0;
    qint64 size = -1;  // -1: no such file
    qint64 mtimeNs = 0;

    bool exists() const { return size >= 0; }
    bool sameFile(const VXFileId &o) const { return exists() && device == o.device && inode == o.inode; }
    bool operator==(const VXFileId &) const = default;

    // Links are followed: the file a path shows is the one identified.
    static VXFileId of(const QString &path);
    static VXFileId ofDescriptor(int fd);
};

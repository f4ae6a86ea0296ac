#include "engine/VXFileId.h"

#include <QFile>
#include <sys/stat.h>

namespace {

VXFileId fromStat(const struct stat &st)
{
    VXFileId id;
    id.device = quint64(st.st_dev);
    id.inode = quint64(st.st_ino);
    id.size = qint64(st.st_size);
    id.mtimeNs = qint64(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
    return id;
}

} // namespace

VXFileId VXFileId::of(const QString &path)
{
    struct stat st {};
    if (::stat(QFile::encodeName(path).constData(), &st) != 0)
        return {};
    return fromStat(st);
}

VXFileId VXFileId::ofDescriptor(int fd)
{
    struct stat st {};
    if (::fstat(fd, &st) != 0)
        return {};
    return fromStat(st);
}

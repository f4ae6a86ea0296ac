#include "engine/codec/VXUtilCodec.h"

#include "engine/codec/VXCodecConstants.h"

#include <QDir>
#include <QFileInfo>

QString VXUtilCodec::createUniformFileName(const QString &base, const QString &ext, const QString &folder)
{
    const QDir dir(folder);
    const QString suffix = ext.isEmpty() ? QString() : QStringLiteral(".") + ext;
    QString candidate = dir.filePath(base + suffix);
    // exists() follows links; a dangling link still takes the name.
    for (int n = 1; QFileInfo(candidate).exists() || QFileInfo(candidate).isSymLink(); ++n)
        candidate = dir.filePath(QStringLiteral("%1 %2%3").arg(base).arg(n).arg(suffix));
    return candidate;
}

VXRange rangeOfDataFind(const QByteArray &data, const QByteArray &pattern)
{
    const qsizetype at = pattern.isEmpty() ? -1 : data.indexOf(pattern);
    if (at < 0)
        return {VXNotFound, 0};
    return {qint64(at), qint64(pattern.size())};
}

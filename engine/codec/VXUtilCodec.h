#pragma once

#include <QByteArray>
#include <QString>

struct VXRange {
    qint64 location;
    qint64 length;
};

class VXUtilCodec {
public:
    // Full path in folder of "base.ext" when no entry has that name, else of
    // "base N.ext" with the smallest N >= 1 that is free. Creates nothing.
    static QString createUniformFileName(const QString &base, const QString &ext, const QString &folder);
};

// First occurrence of pattern in data; location VXNotFound when absent.
VXRange rangeOfDataFind(const QByteArray &data, const QByteArray &pattern);

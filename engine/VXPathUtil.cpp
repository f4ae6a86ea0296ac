#include "engine/VXPathUtil.h"

#include <QFile>

namespace VXPath {

namespace {
QString withoutTrailingSlashes(QString path)
{
    while (path.size() > 1 && path.endsWith(QLatin1Char('/')))
        path.chop(1);
    return path;
}
} // namespace

QString lastComponent(const QString &path)
{
    const QString p = withoutTrailingSlashes(path);
    if (p == QLatin1String("/"))
        return p;
    return p.mid(p.lastIndexOf(QLatin1Char('/')) + 1);
}

QString deletingLastComponent(const QString &path)
{
    const QString p = withoutTrailingSlashes(path);
    const qsizetype slash = p.lastIndexOf(QLatin1Char('/'));
    if (slash < 0)
        return QString(QLatin1String(""));
    if (slash == 0)
        return QStringLiteral("/");
    return p.left(slash);
}

QString appendingComponent(const QString &folder, const QString &component)
{
    if (folder.isEmpty())
        return component;
    if (folder.endsWith(QLatin1Char('/')))
        return folder + component;
    return folder + QLatin1Char('/') + component;
}

QString extension(const QString &path)
{
    const QString name = lastComponent(path);
    const qsizetype dot = name.lastIndexOf(QLatin1Char('.'));
    return dot < 0 ? QString() : name.mid(dot + 1);
}

QString deletingExtension(const QString &path)
{
    const QString name = lastComponent(path);
    const qsizetype dot = name.lastIndexOf(QLatin1Char('.'));
    if (dot < 0)
        return path;
    const QString p = withoutTrailingSlashes(path);
    return p.left(p.size() - (name.size() - dot));
}

QString appendingExtension(const QString &path, const QString &ext)
{
    if (ext.isEmpty())
        return path;
    return path + QLatin1Char('.') + ext;
}

QString leftBytes(const QString &name, int maxBytes)
{
    QString cut = name;
    while (!cut.isEmpty() && QFile::encodeName(cut).size() > maxBytes)
        cut.chop(cut.size() >= 2 && cut.at(cut.size() - 1).isLowSurrogate() ? 2 : 1);
    return cut;
}

} // namespace VXPath

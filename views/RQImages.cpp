#include "views/RQImages.h"

#include <QFile>
#include <QHash>
#include <QPainter>
#include <QSvgRenderer>

static void initViewsResources()
{
    // The library is static: without an explicit reference the linker drops
    // the compiled resource file and every lookup fails.
    Q_INIT_RESOURCE(views);
}

static QImage loadImage(const QString &path, qreal dpr)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    const QByteArray bytes = file.readAll();
    // Sniff the content: the guide keeps its historical ".png" name although
    // it is drawn from SVG.
    if (bytes.left(512).contains("<svg")) {
        QSvgRenderer renderer(bytes);
        const QSize size = renderer.defaultSize();
        if (!renderer.isValid() || size.isEmpty())
            return {};
        QImage image(size * dpr, QImage::Format_ARGB32_Premultiplied);
        image.setDevicePixelRatio(dpr);
        image.fill(Qt::transparent);
        QPainter painter(&image);
        renderer.render(&painter, QRectF(QPointF(0, 0), QSizeF(size)));
        return image;
    }
    return QImage::fromData(bytes);
}

QImage rqImageNamed(const QString &path, qreal devicePixelRatio)
{
    static const bool once = (initViewsResources(), true);
    Q_UNUSED(once);
    static QHash<QString, QImage> cache;
    const QString key = path + QLatin1Char('@') + QString::number(devicePixelRatio);
    auto it = cache.constFind(key);
    if (it == cache.constEnd())
        it = cache.insert(key, loadImage(path, devicePixelRatio));
    return *it;
}

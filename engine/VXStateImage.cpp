// The row's picture of an item's job: nothing, a progress disc, or a mark.
#include "engine/VXAudioGain.h"

#include <QFile>
#include <QHash>
#include <QMutex>
#include <QPainter>
#include <QPainterPath>
#include <QSvgRenderer>
#include <mutex>

static void initEngineResources()
{
    // Resources compiled into a static library are not registered on their
    // own; Q_INIT_RESOURCE must be used outside any namespace.
    static std::once_flag once;
    std::call_once(once, [] { Q_INIT_RESOURCE(engine); });
}

namespace {

constexpr qreal kPoints = 32.0;

QImage renderSvg(const QString &resource, int pixels, qreal devicePixelRatio)
{
    initEngineResources();
    QImage image(pixels, pixels, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QSvgRenderer renderer(resource);
    if (renderer.isValid()) {
        QPainter painter(&image);
        painter.setRenderHint(QPainter::Antialiasing);
        renderer.render(&painter, QRectF(0, 0, pixels, pixels));
    }
    image.setDevicePixelRatio(devicePixelRatio);
    return image;
}

// Each picture is rendered once per process and then shared. Not as a
// function's static: its guard would be held while the painter runs, and
// QPainter hands the parts of a large fill to Qt's global thread pool and
// waits for them. Probes ask for the default artwork from that pool's
// threads; the first one in would wait for a pool whose threads all wait for
// it. Two first callers may render it twice; the first stored is kept.
QImage renderedOnce(const QString &resource, int pixels, qreal devicePixelRatio)
{
    // Never destroyed: a probe may ask while the program exits.
    static QMutex *lock = new QMutex;
    static auto *rendered = new QHash<QString, QImage>;  // under lock
    {
        QMutexLocker locker(lock);
        if (const auto it = rendered->constFind(resource); it != rendered->constEnd())
            return *it;
    }
    const QImage image = renderSvg(resource, pixels, devicePixelRatio);
    QMutexLocker locker(lock);
    return *rendered->insert(resource, rendered->value(resource, image));
}

} // namespace

QImage VXAudioGain::successImage()
{
    return renderedOnce(QStringLiteral(":/images/success.svg"), 64, 2.0);
}

QImage VXAudioGain::failureImage()
{
    return renderedOnce(QStringLiteral(":/images/failure.svg"), 64, 2.0);
}

QImage VXAudioGain::defaultArtwork()
{
    return renderedOnce(QStringLiteral(":/images/default_artwork.svg"), 128, 1.0);
}

QImage VXAudioGain::stateImage() const
{
    switch (state()) {
    case VXGainStarted:
        return makeImageWithPrg(0);
    case VXGainRunning:
        return makeImageWithPrg(retCode());
    case VXGainFinished:
        if (retCode() == VXGainSucceeded)
            return successImage();
        if (retCode() == VXGainFailed)
            return failureImage();
        return {};
    default:
        return {};
    }
}

QImage VXAudioGain::makeImageWithPrg(qint64 progress, qreal devicePixelRatio)
{
    const int pixels = qRound(kPoints * devicePixelRatio);
    QImage image(pixels, pixels, QImage::Format_ARGB32_Premultiplied);
    image.setDevicePixelRatio(devicePixelRatio);
    image.fill(Qt::transparent);

    QPainter painter(&image);  // draws in points; the ratio scales to pixels
    painter.setRenderHint(QPainter::Antialiasing);

    // Qt's angles already count counter-clockwise from three o'clock as seen
    // on screen, so a negative sweep from 90 grows clockwise from twelve.
    const float endAngle = float(progress * 360) / -100.0f + 90.0f;
    const qreal sweep = qreal(endAngle) - 90.0;
    QPainterPath wedge;
    wedge.moveTo(16, 16);
    wedge.arcTo(QRectF(0, 0, kPoints, kPoints), 90.0, sweep);
    wedge.closeSubpath();
    painter.fillPath(wedge, QColor(123, 76, 188));

    painter.setPen(QPen(QColor(132, 128, 129), 2.0));
    painter.setBrush(Qt::NoBrush);
    painter.drawEllipse(QRectF(1, 1, 30, 30));
    painter.end();
    return image;
}

#include "views/RQGuideView.h"

#include "views/RQImages.h"

#include <QPainter>

RQGuideView::RQGuideView(QWidget *parent) : QWidget(parent), m_imageName(QString::fromLatin1(kRQGuideImage))
{
    setAttribute(Qt::WA_TransparentForMouseEvents);
}

void RQGuideView::setImageName(const QString &name)
{
    if (m_imageName == name)
        return;
    m_imageName = name;
    update();
    emit imageNameChanged();
}

void RQGuideView::paintEvent(QPaintEvent *)
{
    const QImage image = rqImageNamed(m_imageName, devicePixelRatioF());
    if (image.isNull())
        return;
    const QSizeF size = QSizeF(image.size()) / image.devicePixelRatio();
    if (size.isEmpty())
        return;
    // Centred at natural size, not rounded; a smaller view clips it evenly.
    const QRectF target((width() - size.width()) * 0.5, (height() - size.height()) * 0.5, size.width(),
                        size.height());
    QPainter painter(this);
    painter.setRenderHint(QPainter::SmoothPixmapTransform);
    painter.drawImage(target, image);
}

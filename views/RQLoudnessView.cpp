#include "views/RQLoudnessView.h"

#include <QPainter>

namespace {
// The list's and bottom bar's greys; the curves keep the engine's hues,
// which read well on them.
VXLoudnessPictureColors windowColors()
{
    VXLoudnessPictureColors ink;
    ink.background = QColor(53, 51, 52);
    ink.grid = QColor(75, 71, 72);
    ink.text = QColor(195, 195, 195);
    return ink;
}
} // namespace

RQLoudnessView::RQLoudnessView(QWidget *parent) : QWidget(parent)
{
    setAttribute(Qt::WA_OpaquePaintEvent);
    m_data.colors = windowColors();
    setPicture(m_data);
}

void RQLoudnessView::setPicture(const VXLoudnessPictureData &data)
{
    m_data = data;
    m_data.colors = windowColors();
    const VXLoudness &in = m_data.input;
    // Screen readers get the figures the picture shows.
    setAccessibleDescription(
        in.measured() ? tr("%1: integrated %2 LUFS, range %3 LU, true peak %4 dBTP, target %5 LUFS")
                            .arg(m_data.title)
                            .arg(in.integrated, 0, 'f', 1)
                            .arg(in.range, 0, 'f', 1)
                            .arg(in.truePeak, 0, 'f', 1)
                            .arg(m_data.targetLufs, 0, 'f', 1)
                      : tr("Not measured: Analyze (Ctrl+I) measures the selected files"));
    update();
}

void RQLoudnessView::paintEvent(QPaintEvent *)
{
    QPainter p(this);
    if (!m_data.input.measured()) {
        p.fillRect(rect(), m_data.colors.background);
        p.setPen(QColor(132, 129, 128));
        p.drawText(rect(), Qt::AlignCenter, tr("Analyze (Ctrl+I) to see the selected file's loudness over time"));
        return;
    }
    const qreal dpr = devicePixelRatioF();
    QImage image = VXLoudnessPicture(m_data, (QSizeF(size()) * dpr).toSize());
    image.setDevicePixelRatio(dpr);
    p.drawImage(QPoint(0, 0), image);
}

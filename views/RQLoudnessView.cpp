#include "views/RQLoudnessView.h"

#include <QAction>
#include <QMouseEvent>
#include <QPainter>
#include <QToolButton>
#include <QVBoxLayout>

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

constexpr int kStripWidth = 44;
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
    m_image = QImage();
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
    setCursor(in.measured() ? Qt::PointingHandCursor : Qt::ArrowCursor);
    update();
}

void RQLoudnessView::setControls(const QList<QAction *> &actions)
{
    delete m_controls;
    m_controls = new QWidget(this);
    auto *column = new QVBoxLayout(m_controls);
    column->setContentsMargins(4, 6, 4, 6);
    column->setSpacing(4);
    for (QAction *action : actions) {
        auto *button = new QToolButton(m_controls);
        button->setDefaultAction(action);
        button->setAutoRaise(true);
        button->setFixedSize(kStripWidth - 8, 30);
        button->setCursor(Qt::ArrowCursor);
        // A screen reader says the action's words, not its symbol.
        auto describe = [button, action] {
            button->setAccessibleName(action->text().remove(QLatin1Char('&')));
            button->setAccessibleDescription(action->toolTip());
        };
        describe();
        connect(action, &QAction::changed, button, describe);
        column->addWidget(button);
    }
    column->addStretch();
    m_controls->setGeometry(0, 0, kStripWidth, height());
    m_controls->show();
    m_image = QImage();
    update();
}

void RQLoudnessView::setPlayhead(double seconds)
{
    if (m_playhead == seconds || (std::isnan(m_playhead) && std::isnan(seconds)))
        return;
    m_playhead = seconds;
    update();
    emit playheadChanged();
}

QRect RQLoudnessView::pictureRect() const
{
    return rect().adjusted(m_controls ? kStripWidth : 0, 0, 0, 0);
}

// The picture is drawn at the screen's pixels, its margins in them too.
QRectF RQLoudnessView::plotRect() const
{
    const QRect area = pictureRect();
    const qreal dpr = devicePixelRatioF();
    const QRectF plot = VXLoudnessPlotArea((QSizeF(area.size()) * dpr).toSize());
    return QRectF(plot.topLeft() / dpr, plot.size() / dpr).translated(area.topLeft());
}

double RQLoudnessView::secondsAt(const QPoint &point) const
{
    if (!m_data.input.measured())
        return NAN;
    const QRectF plot = plotRect();
    if (plot.width() <= 0 || point.x() < plot.left() || point.x() > plot.right() || point.y() < 0)
        return NAN;
    return (point.x() - plot.left()) / plot.width() * VXLoudnessPictureSeconds(m_data);
}

void RQLoudnessView::mousePressEvent(QMouseEvent *event)
{
    const double seconds = secondsAt(event->position().toPoint());
    if (event->button() == Qt::LeftButton && std::isfinite(seconds)) {
        emit seekRequested(seconds);
        event->accept();
        return;
    }
    QWidget::mousePressEvent(event);
}

void RQLoudnessView::resizeEvent(QResizeEvent *event)
{
    if (m_controls)
        m_controls->setGeometry(0, 0, kStripWidth, height());
    QWidget::resizeEvent(event);
}

void RQLoudnessView::paintEvent(QPaintEvent *)
{
    QPainter p(this);
    p.fillRect(rect(), m_data.colors.background);
    const QRect area = pictureRect();
    if (!m_data.input.measured()) {
        p.setPen(QColor(132, 129, 128));
        p.drawText(area, Qt::AlignCenter, tr("Analyze (Ctrl+I) to see the selected file's loudness over time"));
        return;
    }
    // Drawn once for its data and size: the playhead moves over it many
    // times a second.
    const qreal dpr = devicePixelRatioF();
    const QSize pixels = (QSizeF(area.size()) * dpr).toSize();
    if (m_image.size() != pixels) {
        m_image = VXLoudnessPicture(m_data, pixels);
        m_image.setDevicePixelRatio(dpr);
    }
    p.drawImage(area.topLeft(), m_image);
    const double seconds = VXLoudnessPictureSeconds(m_data);
    if (std::isfinite(m_playhead) && m_playhead >= 0 && m_playhead <= seconds) {
        const QRectF plot = plotRect();
        const double x = plot.left() + m_playhead / seconds * plot.width();
        p.setPen(QPen(QColor(240, 240, 240), 1.5));
        p.drawLine(QPointF(x, plot.top()), QPointF(x, plot.bottom()));
    }
}

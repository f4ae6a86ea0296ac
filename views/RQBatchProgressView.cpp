#include "views/RQBatchProgressView.h"

#include <QLocale>
#include <QPainter>
#include <cmath>

namespace {
const QColor kText(195, 195, 195);
const QColor kTrack(47, 43, 44);
const QColor kFill(123, 76, 188);  // the rows' progress disc
constexpr int kBarHeight = 4;
constexpr int kWidth = 230;
} // namespace

RQBatchProgressView::RQBatchProgressView(QWidget *parent) : QWidget(parent)
{
    setAccessibleName(tr("Batch progress"));
    setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Preferred);
    hide();
}

QString RQBatchProgressView::timeLeftText(double seconds)
{
    if (!(seconds >= 0))
        return {};
    if (seconds < 57.5) {
        // Steps of five seconds: a figure that flickers every second says no more.
        const int rounded = qMax(5, int(std::ceil(seconds / 5.0)) * 5);
        return tr("about %1 s left").arg(rounded);
    }
    const qint64 minutes = qMax<qint64>(1, qRound64(seconds / 60.0));
    if (minutes < 60)
        return tr("about %1 min left").arg(minutes);
    return tr("about %1 h %2 min left").arg(minutes / 60).arg(minutes % 60, 2, 10, QLatin1Char('0'));
}

void RQBatchProgressView::setProgress(int done, int total, double fraction, double secondsLeft)
{
    const QLocale locale;
    QString text = tr("%1 of %2 files").arg(locale.toString(done), locale.toString(total));
    const QString left = timeLeftText(secondsLeft);
    if (!left.isEmpty())
        text += QStringLiteral(" · ") + left;
    fraction = qBound(0.0, fraction, 1.0);
    if (text == m_text && std::abs(fraction - m_fraction) * width() < 0.5)
        return;
    m_text = text;
    m_fraction = fraction;
    setAccessibleDescription(text);
    update();
    emit textChanged();
}

QSize RQBatchProgressView::sizeHint() const
{
    return {kWidth, fontMetrics().height() + kBarHeight + 6};
}

QSize RQBatchProgressView::minimumSizeHint() const
{
    return sizeHint();
}

void RQBatchProgressView::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    const QRect bar(0, height() - kBarHeight - 2, width(), kBarHeight);
    const QRect line(0, 0, width(), bar.top() - 2);
    painter.setPen(kText);
    painter.drawText(line, Qt::AlignLeft | Qt::AlignBottom,
                     fontMetrics().elidedText(m_text, Qt::ElideRight, line.width()));
    painter.fillRect(bar, kTrack);
    painter.fillRect(QRect(bar.topLeft(), QSize(qRound(bar.width() * m_fraction), bar.height())), kFill);
}

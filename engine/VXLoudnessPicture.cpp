#include "engine/VXLoudnessPicture.h"

#include <QPainter>
#include <QPainterPath>

#include <algorithm>

std::pair<double, double> VXLoudnessRangeBand(const std::vector<float> &shortTerm)
{
    std::vector<double> gated;
    double energy = 0;
    for (const float v : shortTerm) {
        if (v > -70.0f) {
            gated.push_back(v);
            energy += std::pow(10.0, double(v) / 10.0);
        }
    }
    if (gated.empty())
        return {NAN, NAN};
    const double relative = 10.0 * std::log10(energy / double(gated.size())) - 20.0;
    gated.erase(std::remove_if(gated.begin(), gated.end(), [&](double v) { return v < relative; }), gated.end());
    std::sort(gated.begin(), gated.end());
    auto at = [&](double q) { return gated[size_t(std::lround(q * double(gated.size() - 1)))]; };
    return {at(0.10), at(0.95)};
}

namespace {

QString clock(double seconds)
{
    const int s = int(seconds + 0.5);
    return s >= 3600 ? QString::asprintf("%d:%02d:%02d", s / 3600, s / 60 % 60, s % 60)
                     : QString::asprintf("%d:%02d", s / 60, s % 60);
}

// The plot area and its scales: loudness up, time across.
struct Canvas {
    QPainter &p;
    const VXLoudnessPictureColors &ink;
    QRectF plot;
    double bottom = -90.0;
    double top = 0.0;
    double seconds = kVXShortTermStep;

    double y(double lufs) const
    {
        return plot.top() + (top - std::clamp(lufs, bottom, top)) / (top - bottom) * plot.height();
    }
    double x(double t) const { return plot.left() + t / seconds * plot.width(); }

    void grid() const
    {
        p.setPen(ink.grid);
        for (double v = bottom; v <= top; v += 10.0) {
            p.drawLine(QPointF(plot.left(), y(v)), QPointF(plot.right(), y(v)));
            p.setPen(ink.text);
            p.drawText(QRectF(0, y(v) - 8, plot.left() - 6, 16), Qt::AlignRight | Qt::AlignVCenter,
                       QString::number(int(v)));
            p.setPen(ink.grid);
        }
        // Time marks at a round step giving about eight of them.
        double step = 1;
        for (const double s : {1.0, 2.0, 5.0, 10.0, 15.0, 30.0, 60.0, 120.0, 300.0, 600.0, 900.0, 1800.0, 3600.0})
            if (seconds / s >= 3) step = s;
        p.setPen(ink.text);
        for (double t = 0; t <= seconds + 1e-9; t += step)
            p.drawText(QRectF(x(t) - 40, plot.bottom() + 4, 80, 18), Qt::AlignHCenter | Qt::AlignTop, clock(t));
    }

    // One point a pixel column, the loudest of the steps it covers: a long
    // file still draws in a few milliseconds and no peak disappears.
    void curve(const std::vector<float> &values, const QColor &colour, double width) const
    {
        if (values.empty())
            return;
        const int columns = std::max(1, int(plot.width()));
        QPainterPath path;
        bool started = false;
        const double perColumn = double(values.size()) / columns;
        for (int c = 0; c < columns; ++c) {
            const size_t from = size_t(c * perColumn);
            const size_t to = std::min(values.size(), std::max(from + 1, size_t((c + 1) * perColumn)));
            if (from >= values.size())
                break;
            const float v = *std::max_element(values.begin() + qsizetype(from), values.begin() + qsizetype(to));
            const QPointF point(x(double(to) * kVXShortTermStep), y(std::isfinite(v) ? double(v) : bottom));
            started ? path.lineTo(point) : path.moveTo(point);
            started = true;
        }
        p.setPen(QPen(colour, width));
        p.setBrush(Qt::NoBrush);
        p.drawPath(path);
    }

    void level(double v, const QColor &colour, Qt::PenStyle style, const QString &label) const
    {
        if (!std::isfinite(v))
            return;
        p.setPen(QPen(colour, 1.2, style));
        p.drawLine(QPointF(plot.left(), y(v)), QPointF(plot.right(), y(v)));
        // Above its line, unless that is over the legend (a ceiling near 0).
        const bool under = y(v) - 17 < plot.top();
        p.drawText(QRectF(plot.left() + 6, under ? y(v) + 1 : y(v) - 17, plot.width() - 12, 16),
                   Qt::AlignRight | (under ? Qt::AlignTop : Qt::AlignBottom), label);
    }

    void legend(const VXLoudnessPictureData &data) const
    {
        p.setPen(ink.text);
        QString figures = QStringLiteral("    short-term loudness (LUFS, 3 s)");
        if (std::isfinite(data.input.range))
            figures += QStringLiteral("    LRA %1 LU").arg(data.input.range, 0, 'f', 1);
        if (std::isfinite(data.input.truePeak))
            figures += QStringLiteral("    true peak %1 dBTP").arg(data.input.truePeak, 0, 'f', 1);
        const bool both = !data.output.shortTerm.empty();
        const QString output = QStringLiteral("output %1 LUFS").arg(data.output.integrated, 0, 'f', 1);
        const QFontMetricsF metrics(p.font());
        // A long name gives way, so the figures never run under the key.
        const double key = both ? metrics.horizontalAdvance(QStringLiteral("input  ") + output) + 28 : 0;
        const QString title = metrics.elidedText(data.title, Qt::ElideMiddle,
                                                 std::max(0.0, plot.width() - key - metrics.horizontalAdvance(figures)));
        p.drawText(QRectF(plot.left(), 6, plot.width(), 18), Qt::AlignLeft | Qt::AlignVCenter, title + figures);
        if (!both)
            return;
        p.setPen(ink.output);
        p.drawText(QRectF(plot.left(), 6, plot.width(), 18), Qt::AlignRight | Qt::AlignVCenter, output);
        p.setPen(ink.input);
        p.drawText(QRectF(plot.left(), 6, plot.width() - p.fontMetrics().horizontalAdvance(output) - 14, 18),
                   Qt::AlignRight | Qt::AlignVCenter, QStringLiteral("input"));
    }
};

} // namespace

QRectF VXLoudnessPlotArea(QSize size) { return QRectF(52, 30, size.width() - 52 - 16, size.height() - 30 - 28); }

double VXLoudnessPictureSeconds(const VXLoudnessPictureData &data)
{
    const size_t points = std::max(data.input.shortTerm.size(), data.output.shortTerm.size());
    return std::max(kVXShortTermStep, double(points) * kVXShortTermStep);
}

QImage VXLoudnessPicture(const VXLoudnessPictureData &data, QSize size)
{
    const VXLoudnessPictureColors &ink = data.colors;
    QImage image(size, QImage::Format_ARGB32_Premultiplied);
    image.fill(ink.background);
    QPainter p(&image);
    p.setRenderHint(QPainter::Antialiasing);
    QFont font = p.font();
    font.setPixelSize(12);
    p.setFont(font);

    Canvas canvas{p, ink, VXLoudnessPlotArea(size)};
    const auto band = VXLoudnessRangeBand(data.input.shortTerm);
    // The scale runs from full scale down to 20 LU under the quietest thing
    // worth seeing, in steps of 10.
    double low = 0;
    for (const double v : {data.targetLufs, data.input.integrated, band.first, data.output.integrated})
        if (std::isfinite(v))
            low = std::min(low, v);
    canvas.bottom = std::max(-90.0, std::floor((low - 20.0) / 10.0) * 10.0);
    canvas.seconds = VXLoudnessPictureSeconds(data);
    canvas.grid();

    if (std::isfinite(band.first) && std::isfinite(band.second)) {
        QColor fill = ink.input;
        fill.setAlpha(45);
        p.fillRect(QRectF(QPointF(canvas.plot.left(), canvas.y(band.second)),
                          QPointF(canvas.plot.right(), canvas.y(band.first))),
                   fill);
    }
    canvas.curve(data.input.shortTerm, ink.input, data.curveWidth);
    canvas.curve(data.output.shortTerm, ink.output, data.curveWidth);
    canvas.level(data.ceilingDbtp, ink.ceiling, Qt::DashLine,
                 QStringLiteral("ceiling %1 dBTP").arg(data.ceilingDbtp, 0, 'f', 1));
    canvas.level(data.targetLufs, ink.target, Qt::DashLine,
                 QStringLiteral("target %1 LUFS").arg(data.targetLufs, 0, 'f', 1));
    canvas.level(data.input.integrated, ink.integrated, Qt::SolidLine,
                 QStringLiteral("integrated %1 LUFS").arg(data.input.integrated, 0, 'f', 1));
    canvas.legend(data);
    return image;
}

#include "engine/VXReportPrivate.h"

#include "engine/VXLoudnessPicture.h"
#include "engine/VXVersion.h"

#include <QBuffer>
#include <QDateTime>
#include <QImageWriter>
#include <QPdfWriter>
#include <QSaveFile>
#include <QTextDocument>
#include <QThreadPool>
#include <QtConcurrent/QtConcurrentMap>

#include <climits>
#include <numeric>

namespace vxreport {

namespace {

QRgb blend(QColor under, QColor over, double alpha)
{
    auto mix = [alpha](int a, int b) { return int(std::lround(a + (b - a) * alpha)); };
    return qRgb(mix(under.red(), over.red()), mix(under.green(), over.green()), mix(under.blue(), over.blue()));
}

// Every colour the picture draws with, over its two grounds (the background
// and the loudness-range band), in 16 steps of anti-aliasing: 226 entries.
// A picture in them is a fifth of its size in true colour, and no hue moves.
QList<QRgb> palette(const VXLoudnessPictureColors &ink)
{
    const QColor band = QColor::fromRgb(blend(ink.background, ink.input, 45.0 / 255.0));
    QList<QRgb> table;
    for (const QColor &ground : {ink.background, band}) {
        table << ground.rgb();
        for (const QColor &c : {ink.grid, ink.text, ink.input, ink.output, ink.target, ink.ceiling, ink.integrated})
            for (int k = 1; k <= 16; ++k)
                table << blend(ground, c, k / 16.0);
    }
    return table;
}

// The picture in the palette's colours, each pixel its nearest. Qt's own
// conversion to a given palette searches it for every pixel and took a third
// of a report's time; pictures share a few thousand colours, in long runs,
// so each thread looks each one up once. The picture is opaque: its
// premultiplied pixels are plain RGB.
QImage indexed(const QImage &image, const QList<QRgb> &table)
{
    QImage out(image.size(), QImage::Format_Indexed8);
    out.setColorTable(table);
    auto nearest = [&table](QRgb c) {
        int best = 0, bestDistance = INT_MAX;
        for (int i = 0; i < table.size(); ++i) {
            const int r = qRed(c) - qRed(table[i]), g = qGreen(c) - qGreen(table[i]), b = qBlue(c) - qBlue(table[i]);
            if (const int d = r * r + g * g + b * b; d < bestDistance) {
                bestDistance = d;
                best = i;
            }
        }
        return uchar(best);
    };
    thread_local QHash<QRgb, uchar> known;
    const int width = image.width();
    for (int y = 0; y < image.height(); ++y) {
        const auto *in = reinterpret_cast<const QRgb *>(image.constScanLine(y));
        uchar *to = out.scanLine(y);
        QRgb last = ~in[0];
        uchar index = 0;
        for (int x = 0; x < width; ++x) {
            if (in[x] != last) {
                last = in[x];
                auto it = known.constFind(last);
                index = it != known.constEnd() ? *it : *known.insert(last, nearest(last));
            }
            to[x] = index;
        }
    }
    return out;
}

QByteArray png(const Entry &e, QSize size)
{
    const VXReportFile &f = *e.file;
    if (f.inputCurve.empty() && f.outputCurve.empty())
        return {};
    VXLoudnessPictureData data;
    data.title = e.name;
    data.input.integrated = e.before.integrated;
    data.input.truePeak = e.before.truePeak;
    data.input.range = e.before.range;
    data.input.shortTerm = f.inputCurve;
    data.output.integrated = e.after.integrated;
    data.output.shortTerm = f.outputCurve;
    data.targetLufs = f.limits.target;
    data.ceilingDbtp = f.limits.maxTruePeak;
    data.curveWidth = 1.0;
    static const QList<QRgb> colours = palette(data.colors);
    const QImage image = indexed(VXLoudnessPicture(data, size), colours);
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    // zlib's lighter levels: three times faster than the default for a
    // picture a sixth larger.
    QImageWriter writer(&buffer, "png");
    writer.setQuality(70);
    writer.write(image);
    return bytes;
}

QString esc(const QString &s) { return s.toHtmlEscaped(); }

QString verdictClass(VXVerdict v)
{
    switch (v) {
    case VXVerdict::Pass: return QStringLiteral("pass");
    case VXVerdict::Fail: return QStringLiteral("fail");
    case VXVerdict::Unmeasured: return QStringLiteral("unmeasured");
    case VXVerdict::Unlimited: break;
    }
    return QStringLiteral("free");
}

// A figure with its verdict in words, so that a printout in grey still says it.
QString cell(double v, const char *unit, VXVerdict verdict)
{
    QString text = std::isfinite(v) ? figure(v) + QLatin1Char(' ') + QLatin1String(unit) : QStringLiteral("-");
    if (verdict == VXVerdict::Pass || verdict == VXVerdict::Fail)
        text += QStringLiteral(" <b>%1</b>").arg(VXVerdictName(verdict));
    return QStringLiteral("<td class=\"%1\">%2</td>").arg(verdictClass(verdict), text);
}

QString atMost(double limit, const char *unit)
{
    return std::isnan(limit) ? QStringLiteral("no limit")
                             : QStringLiteral("at most %1 %2").arg(figure(limit), QLatin1String(unit));
}

// One line a measure: its limit, then the input's figure and the result's.
QString figuresTable(const Entry &e)
{
    const VXLimits &l = e.file->limits;
    const bool ran = e.ran();
    QString t = QStringLiteral("<table class=\"figures\" border=\"1\" cellspacing=\"0\" cellpadding=\"4\">\n"
                               "<tr><th>Measure</th><th>Limit</th>%1</tr>\n")
                    .arg(ran ? QStringLiteral("<th>Before</th><th>After</th>") : QStringLiteral("<th>Measured</th>"));
    const QString integratedLimit = std::isnan(l.tolerance)
        ? QStringLiteral("no limit")
        : QStringLiteral("%1 LUFS \u00b1%2 LU").arg(figure(l.target), figure(l.tolerance));
    struct Row {
        const char *name;
        QString limit;
        double VXFigures::*value;
        VXVerdict VXJudgement::*verdict;
        const char *unit;
    };
    const Row rows[] = {
        {"Integrated loudness", integratedLimit, &VXFigures::integrated, &VXJudgement::integrated, "LUFS"},
        {"True peak", atMost(l.maxTruePeak, "dBTP"), &VXFigures::truePeak, &VXJudgement::truePeak, "dBTP"},
        {"Loudness range", QStringLiteral("no limit"), &VXFigures::range, nullptr, "LU"},
        {"Max short-term", atMost(l.maxShortTerm, "LUFS"), &VXFigures::maxShortTerm, &VXJudgement::shortTerm, "LUFS"},
        {"Max momentary", atMost(l.maxMomentary, "LUFS"), &VXFigures::maxMomentary, &VXJudgement::momentary, "LUFS"},
    };
    for (const Row &r : rows) {
        t += QStringLiteral("<tr><td>%1</td><td>%2</td>").arg(QLatin1String(r.name), r.limit);
        auto verdict = [&](const VXJudgement &j) { return r.verdict ? j.*r.verdict : VXVerdict::Unlimited; };
        t += cell(e.before.*r.value, r.unit, verdict(e.judgedBefore));
        if (ran)
            t += cell(e.after.*r.value, r.unit, verdict(e.judgedAfter));
        t += QStringLiteral("</tr>\n");
    }
    return t + QStringLiteral("</table>\n");
}

QString missed(const Entry &e)
{
    const VXJudgement &j = e.ran() ? e.judgedAfter : e.judgedBefore;
    QStringList what;
    const std::pair<VXVerdict, const char *> criteria[] = {{j.integrated, "integrated loudness"},
                                                           {j.truePeak, "true peak"},
                                                           {j.shortTerm, "max short-term"},
                                                           {j.momentary, "max momentary"}};
    for (const auto &[v, name] : criteria)
        if (v == VXVerdict::Fail || v == VXVerdict::Unmeasured)
            what << (v == VXVerdict::Fail ? QString::fromLatin1(name) : QLatin1String(name) + QStringLiteral(" not measured"));
    return what.join(QStringLiteral(", "));
}

QString summary(const std::vector<Entry> &all, const std::vector<const Entry *> &order)
{
    const VXReportCounts c = count(all);
    QString s = QStringLiteral(
                    "<h2>Summary</h2>\n<table class=\"counts\" border=\"1\" cellspacing=\"0\" cellpadding=\"4\">\n"
                    "<tr><th>Files</th><th>Fail</th><th>Not measured</th><th>Pass</th></tr>\n"
                    "<tr><td>%1</td><td class=\"fail\">%2</td><td class=\"unmeasured\">%3</td>"
                    "<td class=\"pass\">%4</td></tr>\n</table>\n")
                    .arg(c.files)
                    .arg(c.failed)
                    .arg(c.unmeasured)
                    .arg(c.passed);
    s += QStringLiteral("<table class=\"overview\" width=\"100%\" border=\"1\" cellspacing=\"0\" cellpadding=\"4\">\n"
                        "<tr><th>Verdict</th><th>File</th><th>Standard</th><th>Integrated</th>"
                        "<th>True peak</th><th>Missed</th></tr>\n");
    for (const Entry *e : order) {
        const VXFigures &f = e->ran() ? e->after : e->before;
        const VXVerdict v = e->verdict();
        s += QStringLiteral("<tr><td class=\"%1\">%2</td><td><a href=\"#f%3\">%4</a></td><td>%5</td>"
                            "<td>%6</td><td>%7</td><td>%8</td></tr>\n")
                 .arg(verdictClass(v), VXVerdictName(v))
                 .arg(e - all.data())
                 .arg(esc(e->name), esc(e->file->limits.title), figure(f.integrated), figure(f.truePeak),
                      esc(missed(*e)));
    }
    return s + QStringLiteral("</table>\n");
}

QString section(const Entry &e, qsizetype index, const QByteArray &png, Flavour flavour)
{
    const VXLimits &l = e.file->limits;
    const VXVerdict v = e.verdict();
    QString s = QStringLiteral("<div class=\"file\" id=\"f%1\">\n<h3><span class=\"%2\">%3</span> %4</h3>\n")
                    .arg(index)
                    .arg(verdictClass(v), VXVerdictName(v).toUpper(), esc(e.name));
    QString place = esc(e.input);
    if (!e.output.isEmpty() && e.output != e.input)
        place += QStringLiteral(" \u2192 ") + esc(e.output);
    QString outcome = esc(e.result);
    if (!e.reason.isEmpty())
        outcome += QStringLiteral(": ") + esc(e.reason);
    s += QStringLiteral("<p class=\"place\">%1<br/>Result: %2. Standard: %3, limits from %4.</p>\n")
             .arg(place, outcome, esc(l.title), esc(l.source));
    s += figuresTable(e);
    if (png.isEmpty()) {
        s += QStringLiteral("<p class=\"unmeasured\">No picture: the loudness over time was not measured.</p>\n");
    } else {
        const bool browser = flavour == Flavour::Browser;
        const QString src = browser ? QStringLiteral("data:image/png;base64,") + QString::fromLatin1(png.toBase64())
                                    : QStringLiteral("picture:%1").arg(index);
        const QSize shown = browser ? kPictureSize : kPagePictureSize;
        s += QStringLiteral("<p><img src=\"%1\" width=\"%2\" height=\"%3\" alt=\"Loudness of %4 over time\"/></p>\n")
                 .arg(src)
                 .arg(shown.width())
                 .arg(shown.height())
                 .arg(esc(e.name));
    }
    return s + QStringLiteral("</div>\n");
}

const char kBrowserStyle[] = R"(
body { font-family: system-ui, "Segoe UI", Roboto, "DejaVu Sans", sans-serif; color: #1d1d1f;
       max-width: 60rem; margin: 2rem auto; padding: 0 1rem; line-height: 1.4; }
h1 { font-size: 1.6rem; margin-bottom: 0.2rem; }
h2 { font-size: 1.25rem; margin-top: 2rem; border-bottom: 2px solid #d0d0d4; }
h3 { font-size: 1.05rem; margin: 1.6rem 0 0.4rem; }
h3 span { font-size: 0.75rem; padding: 0.1rem 0.45rem; border-radius: 0.25rem; vertical-align: middle; }
p.meta, p.place { color: #5a5a60; font-size: 0.9rem; margin: 0.2rem 0 0.6rem; word-break: break-all; }
table { border-collapse: collapse; border: 1px solid #d0d0d4; margin: 0.5rem 0; font-size: 0.9rem; }
th, td { border: 1px solid #d0d0d4; padding: 0.3rem 0.6rem; text-align: left; }
th { background: #f2f2f5; }
table.overview { width: 100%; }
td.pass, span.pass { color: #116329; background: #e6f4ea; }
td.fail, span.fail { color: #a50e0e; background: #fce8e6; }
td.unmeasured, span.unmeasured, p.unmeasured { color: #6b6b70; background: #f4f4f6; }
td.free { color: #5a5a60; }
div.file { border-top: 1px solid #e4e4e8; }
img { max-width: 100%; height: auto; border-radius: 0.25rem; }
@media print { div.file { break-inside: avoid; } a { color: inherit; text-decoration: none; } }
)";

// QTextDocument takes classes and colours, not the rest of the above.
const char kDocumentStyle[] = R"(
td.pass, span.pass { color: #116329; background-color: #e6f4ea; }
td.fail, span.fail { color: #a50e0e; background-color: #fce8e6; }
td.unmeasured, span.unmeasured, p.unmeasured { color: #6b6b70; }
th { background-color: #f2f2f5; }
p.meta, p.place { color: #5a5a60; }
)";

} // namespace

std::vector<QByteArray> pictures(const std::vector<Entry> &entries, QSize size)
{
    std::vector<QByteArray> out(entries.size());
    std::vector<size_t> indices(entries.size());
    std::iota(indices.begin(), indices.end(), size_t(0));
    // A pool of its own: the caller may itself be on the global pool.
    QThreadPool pool;
    QtConcurrent::blockingMap(&pool, indices, [&](size_t i) { out[i] = png(entries[i], size); });
    return out;
}

QByteArray html(const std::vector<Entry> &entries, const std::vector<QByteArray> &pngs, Flavour flavour)
{
    const std::vector<const Entry *> order = failuresFirst(entries);
    QString s = QStringLiteral("<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\"/>\n"
                               "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\"/>\n"
                               "<title>Loudness compliance report</title>\n<style>%1</style>\n</head>\n<body>\n")
                    .arg(QLatin1String(flavour == Flavour::Browser ? kBrowserStyle : kDocumentStyle));
    s += QStringLiteral("<h1>Loudness compliance report</h1>\n<p class=\"meta\">%1 file(s), written by "
                        "Evenloud %2 on %3. Loudness by ITU-R BS.1770 with EBU Tech 3341 and 3342.</p>\n")
             .arg(entries.size())
             .arg(QLatin1String(kVXProgramVersion),
                  QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-dd HH:mm")));
    s += summary(entries, order);
    s += QStringLiteral("<h2>Files</h2>\n");
    for (const Entry *e : order) {
        const qsizetype i = e - entries.data();
        s += section(*e, i, pngs[size_t(i)], flavour);
    }
    s += QStringLiteral("</body>\n</html>\n");
    return s.toUtf8();
}

VXResult<> writePdf(const QString &path, const std::vector<Entry> &entries, const std::vector<QByteArray> &pngs)
{
    QTextDocument document;
    // The pictures stay PNG until drawn: a thousand of them decoded at once
    // would take gigabytes.
    for (size_t i = 0; i < pngs.size(); ++i)
        if (!pngs[i].isEmpty())
            document.addResource(QTextDocument::ImageResource, QUrl(QStringLiteral("picture:%1").arg(i)), pngs[i]);
    document.setHtml(QString::fromUtf8(html(entries, pngs, Flavour::Document)));

    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return VXError::because(QStringLiteral("cannot write %1: %2").arg(path, file.errorString()));
    {
        QPdfWriter writer(&file);
        writer.setPageSize(QPageSize(QPageSize::A4));
        writer.setPageMargins(QMarginsF(15, 15, 15, 15), QPageLayout::Millimeter);
        writer.setTitle(QStringLiteral("Loudness compliance report"));
        writer.setCreator(QStringLiteral("Evenloud %1").arg(QLatin1String(kVXProgramVersion)));
        document.print(&writer);
    }
    if (!file.commit())
        return VXError::because(QStringLiteral("cannot write %1: %2").arg(path, file.errorString()));
    return {};
}

} // namespace vxreport

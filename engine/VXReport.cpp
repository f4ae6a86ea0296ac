#include "engine/VXReport.h"

#include "engine/VXReportPrivate.h"

#include <QFileInfo>
#include <QJsonValue>
#include <QSaveFile>

#include <algorithm>

namespace vxreport {

namespace {

double number(const QJsonObject &o, const char *key)
{
    const QJsonValue v = o.value(QLatin1String(key));
    return v.isDouble() ? v.toDouble() : NAN;
}

QString string(const QJsonObject &o, const char *key) { return o.value(QLatin1String(key)).toString(); }

int rank(VXVerdict v) { return v == VXVerdict::Fail ? 0 : v == VXVerdict::Unmeasured ? 1 : 2; }

} // namespace

std::vector<Entry> entries(const QList<VXReportFile> &files)
{
    std::vector<Entry> out;
    out.reserve(size_t(files.size()));
    for (const VXReportFile &f : files) {
        Entry e;
        e.file = &f;
        const QJsonObject &r = f.record;
        e.input = string(r, "input");
        e.name = QFileInfo(e.input).fileName();
        e.output = string(r, "output");
        e.result = string(r, "result");
        e.reason = string(r, "reason");
        e.before = {number(r, "input_i"), number(r, "input_tp"), number(r, "input_lra"),
                    number(r, "max_short_term"), number(r, "max_momentary")};
        e.after = {number(r, "output_i"), number(r, "output_tp"), number(r, "output_lra"),
                   number(r, "output_max_short_term"), number(r, "output_max_momentary")};
        e.judgedBefore = VXJudge(e.before, f.limits);
        e.judgedAfter = VXJudge(e.after, f.limits);
        out.push_back(std::move(e));
    }
    return out;
}

std::vector<const Entry *> failuresFirst(const std::vector<Entry> &entries)
{
    std::vector<const Entry *> out;
    for (const Entry &e : entries)
        out.push_back(&e);
    std::stable_sort(out.begin(), out.end(),
                     [](const Entry *a, const Entry *b) { return rank(a->verdict()) < rank(b->verdict()); });
    return out;
}

VXReportCounts count(const std::vector<Entry> &entries)
{
    VXReportCounts c;
    for (const Entry &e : entries) {
        ++c.files;
        switch (e.verdict()) {
        case VXVerdict::Fail: ++c.failed; break;
        case VXVerdict::Pass: ++c.passed; break;
        default: ++c.unmeasured; break;
        }
    }
    return c;
}

QString figure(double v, int decimals)
{
    return std::isfinite(v) ? QString::number(v, 'f', decimals) : QStringLiteral("-");
}

} // namespace vxreport

using namespace vxreport;

namespace {

// RFC 4180: a field with a comma, quote or line break is quoted, its quotes
// doubled. Text that a spreadsheet would take for a formula is kept text.
QString csvText(QString s)
{
    if (!s.isEmpty() && QStringLiteral("=+-@\t\r").contains(s.front()))
        s.prepend(QLatin1Char('\''));
    if (s.contains(QLatin1Char(',')) || s.contains(QLatin1Char('"')) || s.contains(QLatin1Char('\n'))
        || s.contains(QLatin1Char('\r')))
        s = QLatin1Char('"') + s.replace(QLatin1Char('"'), QStringLiteral("\"\"")) + QLatin1Char('"');
    return s;
}

QString csvNumber(double v) { return std::isfinite(v) ? QString::number(v, 'f', 2) : QString(); }

// A criterion's cell: empty where the standard does not limit it.
QString csvVerdict(VXVerdict v) { return v == VXVerdict::Unlimited ? QString() : VXVerdictName(v); }

} // namespace

VXReportFormat VXReportFormatOf(const QString &path)
{
    const QString ext = QFileInfo(path).suffix().toLower();
    if (ext == QLatin1String("html") || ext == QLatin1String("htm"))
        return VXReportFormat::Html;
    if (ext == QLatin1String("pdf"))
        return VXReportFormat::Pdf;
    if (ext == QLatin1String("csv"))
        return VXReportFormat::Csv;
    return VXReportFormat::Unknown;
}

QByteArray VXReportCsv(const QList<VXReportFile> &files)
{
    // In the run's order, as --json lists them, so the two can be joined.
    QString out = QStringLiteral(
        "file,output,result,reason,standard,target_lufs,tolerance_lu,max_true_peak,max_short_term_limit,"
        "max_momentary_limit,input_i,input_tp,input_lra,max_short_term,max_momentary,output_i,output_tp,"
        "output_lra,output_max_short_term,output_max_momentary,judged,integrated,true_peak,short_term,"
        "momentary,verdict\r\n");
    for (const Entry &e : entries(files)) {
        const VXLimits &l = e.file->limits;
        const VXJudgement &j = e.ran() ? e.judgedAfter : e.judgedBefore;
        const QStringList cells{
            csvText(e.input), csvText(e.output), csvText(e.result), csvText(e.reason),
            csvText(l.name.isEmpty() ? l.title : l.name), csvNumber(l.target), csvNumber(l.tolerance),
            csvNumber(l.maxTruePeak), csvNumber(l.maxShortTerm), csvNumber(l.maxMomentary),
            csvNumber(e.before.integrated), csvNumber(e.before.truePeak), csvNumber(e.before.range),
            csvNumber(e.before.maxShortTerm), csvNumber(e.before.maxMomentary), csvNumber(e.after.integrated),
            csvNumber(e.after.truePeak), csvNumber(e.after.range), csvNumber(e.after.maxShortTerm),
            csvNumber(e.after.maxMomentary), e.ran() ? QStringLiteral("output") : QStringLiteral("input"),
            csvVerdict(j.integrated), csvVerdict(j.truePeak), csvVerdict(j.shortTerm), csvVerdict(j.momentary),
            VXVerdictName(e.verdict())};
        out += cells.join(QLatin1Char(',')) + QStringLiteral("\r\n");
    }
    return out.toUtf8();
}

QByteArray VXReportHtml(const QList<VXReportFile> &files)
{
    const std::vector<Entry> all = entries(files);
    return html(all, pictures(all, kPictureSize), Flavour::Browser);
}

VXResult<VXReportCounts> VXWriteReport(const QString &path, const QList<VXReportFile> &files)
{
    const VXReportFormat format = VXReportFormatOf(path);
    if (format == VXReportFormat::Unknown)
        return VXError::because(QStringLiteral("%1: a report is .html, .pdf or .csv").arg(path));
    const std::vector<Entry> all = entries(files);
    if (format == VXReportFormat::Pdf) {
        if (const VXResult<> written = writePdf(path, all, pictures(all, kPagePictureSize)); !written)
            return written.error();
        return count(all);
    }
    const QByteArray bytes = format == VXReportFormat::Html ? html(all, pictures(all, kPictureSize), Flavour::Browser)
                                                            : VXReportCsv(files);
    // Whole or not at all: a report cut short by a full disk is not left behind.
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size() || !file.commit())
        return VXError::because(QStringLiteral("cannot write %1: %2").arg(path, file.errorString()));
    return count(all);
}

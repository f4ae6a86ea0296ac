#include "cli/CliCompliance.h"

#include "cli/CliRun.h"
#include "engine/VXReport.h"

#include <QJsonObject>

VXResult<> cliWriteComplianceReport(const CliOptions &opt, const QJsonArray &records,
                                    const std::vector<VXLoudness> &inputCurves,
                                    const std::vector<VXLoudness> &outputCurves)
{
    QList<VXReportFile> files;
    for (qsizetype i = 0; i < records.size(); ++i) {
        VXReportFile f;
        f.record = records[i].toObject();
        f.limits = VXLimitsFor(opt.preset, f.record.value(QLatin1String("target_lufs")).toDouble(NAN),
                               opt.settings.truePeakCeiling);
        if (size_t(i) < inputCurves.size())
            f.inputCurve = inputCurves[size_t(i)].shortTerm;
        if (size_t(i) < outputCurves.size())
            f.outputCurve = outputCurves[size_t(i)].shortTerm;
        files << f;
    }
    const VXResult<VXReportCounts> written = VXWriteReport(opt.reportFile, files);
    if (!written)
        return written.error();
    cliSay(QStringLiteral("Report written to %1: %2 file(s) pass, %3 fail, %4 not measured")
               .arg(opt.reportFile)
               .arg(written->passed)
               .arg(written->failed)
               .arg(written->unmeasured));
    return {};
}

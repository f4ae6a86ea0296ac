// The compliance report at scale: 1,000 files with ten-minute curves,
// written as a web page, a PDF and a CSV, timed from figures in hand (the
// measuring is the run's, not the report's). Prints seconds and bytes per
// file; run offscreen: evenloud-report-bench [files] [folder] [html,pdf,csv]
#include "engine/VXLoudnessScale.h"
#include "engine/VXReport.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QGuiApplication>
#include <QJsonObject>
#include <QTemporaryDir>

#include <cmath>
#include <cstdio>
#include <random>

int main(int argc, char **argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication app(argc, argv);
    const int count = argc > 1 ? std::max(1, atoi(argv[1])) : 1000;
    QTemporaryDir scratch;
    const QString folder = argc > 2 ? QString::fromLocal8Bit(argv[2]) : scratch.path();

    std::mt19937 random(7);
    std::normal_distribution<double> level(-21.0, 3.0);
    QList<VXReportFile> files;
    const VXLimits ebu = VXLimitsOf(*VXPresetNamed("ebu"));
    for (int i = 0; i < count; ++i) {
        const double in = level(random);
        const double gain = -23.0 - in;
        VXReportFile f;
        f.limits = ebu;
        // Ten minutes at 10 points a second: a swell, a slow drift and noise.
        f.inputCurve.resize(6000);
        for (size_t k = 0; k < f.inputCurve.size(); ++k)
            f.inputCurve[k] = float(in + 5.0 * std::sin(double(k) / 90.0) + 2.0 * std::sin(double(k) / 7.0)
                                    + std::uniform_real_distribution<double>(-1.5, 1.5)(random));
        f.outputCurve = f.inputCurve;
        for (float &v : f.outputCurve)
            v += float(gain);
        f.record = QJsonObject{{"input", QStringLiteral("/music/album %1/track %2.flac").arg(i / 12).arg(i)},
                               {"output", QStringLiteral("/out/album %1/track %2.flac").arg(i / 12).arg(i)},
                               {"result", "ok"},
                               {"target_lufs", -23.0},
                               {"input_i", std::round(in * 100) / 100},
                               {"input_tp", std::round((in + 14.0) * 100) / 100},
                               {"input_lra", 7.4},
                               {"max_short_term", std::round((in + 8.0) * 100) / 100},
                               {"max_momentary", std::round((in + 10.0) * 100) / 100},
                               {"gain_db", std::round(gain * 100) / 100},
                               {"output_i", -23.0},
                               {"output_tp", std::round((in + 14.0 + gain) * 100) / 100},
                               {"output_lra", 7.4},
                               {"output_max_short_term", std::round((in + 8.0 + gain) * 100) / 100},
                               {"output_max_momentary", std::round((in + 10.0 + gain) * 100) / 100}};
        files << f;
    }
    const QStringList formats = QString::fromLocal8Bit(argc > 3 ? argv[3] : "html,pdf,csv").split(u',');
    for (const QString &ext : formats) {
        const QString path = QDir(folder).filePath(QStringLiteral("report.%1").arg(ext));
        QElapsedTimer clock;
        clock.start();
        const VXResult<VXReportCounts> written = VXWriteReport(path, files);
        const double seconds = double(clock.nsecsElapsed()) / 1e9;
        if (!written) {
            std::fprintf(stderr, "%s: %s\n", qPrintable(ext), qPrintable(written.reason()));
            return 1;
        }
        std::printf("%-4s %5d files  %6.2f s  %7.1f KB per file\n", qPrintable(ext), count, seconds,
                    double(QFileInfo(path).size()) / 1024.0 / count);
    }
    return 0;
}

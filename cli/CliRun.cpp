#include "cli/CliRun.h"

#include "cli/CliAlbums.h"
#include "cli/CliAnalyze.h"
#include "cli/CliCompliance.h"
#include "cli/CliProgress.h"
#include "cli/CliSignals.h"
#include "engine/VXAlbumBatch.h"
#include "engine/VXAnalysis.h"
#include "engine/VXAudioGain.h"
#include "engine/VXImport.h"
#include "engine/codec/VXCodecConstants.h"
#include "engine/codec/VXLog.h"
#include "engine/codec/VXWorker.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>

#include <set>
#include <sys/stat.h>
#include <unistd.h>

void cliWriteOut(FILE *stream, const QByteArray &text)
{
    fwrite(text.constData(), 1, size_t(text.size()), stream);
    fflush(stream);
}

void cliSay(const QString &line) { cliWriteOut(stderr, (line + QLatin1Char('\n')).toLocal8Bit()); }

void CliRun::drawPicture(int i, const VXLoudness &output)
{
    const QString &input = std::as_const(results)[i].input;
    VXLoudnessPictureData data;
    data.title = QFileInfo(input).fileName();
    data.input = inputCurves[size_t(i)];
    data.output = output;
    data.targetLufs = targetLufs;
    data.ceilingDbtp = opt.settings.truePeakCeiling;
    pictureWarnings[size_t(i)] = cliWritePicture(opt.plotFolder, input, data).reason();
}

namespace {

QString refusalReason(const VXError &error)
{
    if (error.userInfo.contains(QLatin1String(VXTranscodingDRMProtected)))
        return QStringLiteral("DRM protected stream detected, can not import such file.");
    if (!error.description.isEmpty())
        return error.description;
    return QStringLiteral("Failed to parser file with unknown reason.");
}

// Inputs named on the command line that are not there, or not audio.
void reportMissingInputs(CliRun &run)
{
    for (const QString &path : run.opt.inputs) {
        QFileInfo info(path);
        if (!info.exists()) {
            cliSay(QStringLiteral("evenloud-cli: %1: No such file or folder").arg(path));
            CliFileResult r = run.result(path, CliOutcome::Missing);
            r.reason = QStringLiteral("no such file or folder");
            run.results << r;
        } else if (!info.isDir() && !VXImport::passesExtensionTest(path)) {
            cliSay(QStringLiteral("evenloud-cli: %1: skipped, not a supported extension").arg(path));
        }
    }
}

// The app's walk order and extensions. A file is itself whatever its
// spelling (./a.mp3, /abs/a.mp3, a link to it): one file is processed
// once, and Take.wav and take.wav, two files here, both are. Hidden
// entries of walked folders are skipped. Each file is probed as found and
// becomes an item, set up for its job, unless it is only analysed.
void collectFiles(CliRun &run)
{
    const CliOptions &opt = run.opt;
    // Tags go into copies with an output folder, else into the files.
    const bool inPlace = opt.replace || (opt.settings.tagsOnly && opt.outputFolder.isEmpty());
    std::set<std::pair<dev_t, ino_t>> seen;
    VXImport::walk(opt.inputs, opt.recursive, CliSignals::pending(), [&](const QString &file) {
        struct stat st {};
        if (CliSignals::pending() || ::stat(QFile::encodeName(file).constData(), &st) != 0
            || !seen.insert({st.st_dev, st.st_ino}).second)
            return;
        if (opt.analyze) {
            run.results << run.result(file, CliOutcome::Analyzed);
            return;
        }
        VXError error;
        VXAudioGainPtr item = VXAudioGain::initWithFile(file, opt.outputFolder, &error);
        if (!item) {
            CliFileResult r = run.result(file, CliOutcome::Refused);
            r.reason = refusalReason(error);
            cliSay(QStringLiteral("Can not import audio file(%1): %2").arg(file, r.reason));
            run.results << r;
            return;
        }
        item->setTargetLoudness(opt.settings.targetLoudness);
        item->setReplaceOriginalFile(inPlace);
        item->setOutFolder(inPlace ? QString() : opt.outputFolder);
        run.results << run.result(file, CliOutcome::Failed);
        run.jobs << CliBatch::Job{item, int(run.results.size() - 1)};
    }, true);
    QList<VXAudioGainPtr> items;
    for (const CliBatch::Job &j : std::as_const(run.jobs))
        items << j.item;
    run.albums = VXAlbumBatch::prepareJobs(items, opt.settings);
}

// --analyze --album: every album measured whole, before its tracks are.
void measureAlbumsForAnalysis(CliRun &run)
{
    QStringList paths;
    for (const CliFileResult &r : std::as_const(run.results))
        if (r.outcome == CliOutcome::Analyzed)
            paths << r.input;
    run.albums = std::make_shared<VXAlbumBatch>(paths, run.opt.settings.measureFlags() & VXMeasureDualMono);
    cliMeasureAlbums(*run.albums, run.opt.jobs, run.measuring);
    cliReportAlbums(run.results, *run.albums, run.opt.settings);
}

// --analyze, and the input curves of --plot: each file measured on the pool.
void measureInputs(CliRun &run)
{
    const CliOptions &opt = run.opt;
    QList<int> measured;  // result indices
    for (qsizetype i = 0; i < run.results.size(); ++i) {
        const CliOutcome outcome = run.results[i].outcome;
        if ((outcome == CliOutcome::Analyzed || !opt.analyze) && outcome != CliOutcome::Missing
            && outcome != CliOutcome::Refused)
            measured << int(i);
    }
    std::vector<VXAnalysis> analyses(size_t(measured.size()));
    std::vector<char> ended(size_t(measured.size()), 0);
    cliRunOnPool(int(measured.size()), opt.jobs, [&](int k) {
        const int i = measured[k];
        VXAnalysis a = VXAnalyzeFile(std::as_const(run.results)[i].input, run.targetLufs,
                                     opt.settings.truePeakCeiling, opt.settings.limitPeaks, opt.settings.dualMono,
                                     &run.measuring);
        run.inputCurves[size_t(i)] = a.loudness;
        if (a.ok && opt.analyze && run.plot())
            run.drawPicture(i, {});
        analyses[size_t(k)] = std::move(a);
    }, [&](int k) {
        CliFileResult &r = run.results[measured[k]];
        const VXAnalysis &a = analyses[size_t(k)];
        if (!a.ok && run.measuring.isCancelled())
            return;  // cancelled, not failed
        ended[size_t(k)] = 1;
        r.maxShortTerm = a.loudness.maxShortTerm;
        r.maxMomentary = a.loudness.maxMomentary;
        if (!opt.analyze)
            return;
        if (!a.ok) {
            r.outcome = CliOutcome::Failed;
            r.reason = a.reason;
        } else {
            r.measurement = VXMeasurementRecord(a.loudness);
            r.measurement.remove(QStringLiteral("target_offset"));  // nothing was normalised
            r.gainDb = a.gainDb;
            r.normalization = a.normalization;
        }
        cliSay(QStringLiteral("%1  %2%3").arg(outcomeName(r.outcome), -9).arg(r.input,
                                             r.reason.isEmpty() ? QString() : QStringLiteral(": ") + r.reason));
    }, run.measuring);
    for (qsizetype k = 0; opt.analyze && k < measured.size(); ++k)
        if (!ended[size_t(k)])
            run.results[measured[k]].outcome = CliOutcome::Cancelled;
    // An album's tracks would all take its gain.
    for (CliFileResult &r : run.results)
        if (opt.analyze && r.outcome == CliOutcome::Analyzed && !std::isnan(r.albumGainDb)) {
            r.gainDb = r.albumGainDb;
            r.normalization = r.albumNormalization;
        }
}

} // namespace

void cliCollectFiles(CliRun &run)
{
    reportMissingInputs(run);
    collectFiles(run);
}

void cliMeasureBeforeJobs(CliRun &run)
{
    const QMetaObject::Connection interrupts
        = QObject::connect(&run.watcher, &CliSignals::interrupted, &run.app, [&run](int count) {
              if (count >= 2) {
                  VXAudioGain::cleanCache();
                  _exit(CliSignals::exitStatus());
              }
              cliSay(QStringLiteral("Interrupted: cancelling the files being measured (Ctrl-C again to quit at once)"));
              run.measuring.cancel();
          });
    if (run.opt.analyze && run.opt.settings.treatAsAlbums)
        measureAlbumsForAnalysis(run);
    if (run.opt.analyze || run.curves())
        measureInputs(run);
    QObject::disconnect(interrupts);
}

void cliRunJobs(CliRun &run)
{
    const bool terminal = isatty(STDERR_FILENO);
    quint64 totalDuration = 0;
    for (const CliBatch::Job &j : std::as_const(run.jobs))
        totalDuration += j.item->duration();
    CliProgress progress(terminal, int(run.jobs.size()), totalDuration);
    // Engine log lines (fallbacks, placement failures) go above the bars.
    const VXLogSink previousSink = VXSetLogSink([&progress](const QString &line) { progress.message(line); });

    CliBatch batch(run.jobs, run.results, run.opt.jobs, progress);
    QObject::connect(&batch, &CliBatch::finished, &run.app, &QCoreApplication::quit, Qt::QueuedConnection);
    const bool tags = run.opt.settings.tagsOnly;
    QObject::connect(&run.watcher, &CliSignals::interrupted, &run.app, [&](int count) {
        if (count >= 2) {
            // The user insists: leave now. The temporary files go with us;
            // results already placed are complete (placing is a rename).
            progress.finish();
            VXAudioGain::cleanCache();
            _exit(CliSignals::exitStatus());
        }
        progress.message(tags ? QStringLiteral("Interrupted: cancelling the files being measured (Ctrl-C again to quit at once)")
                              : QStringLiteral("Interrupted: cancelling running files (Ctrl-C again to quit at once)"));
        batch.cancel();
        run.measuring.cancel();  // and the pictures after it
    });
    // Interrupted while measuring the pictures' inputs: no job starts.
    if (CliSignals::pending())
        batch.cancel();
    else
        batch.start();
    if (!run.jobs.isEmpty())
        run.app.exec();
    progress.finish();
    VXSetLogSink(previousSink);
    run.cancelled = batch.isCancelled();
    if (run.albums)
        cliReportAlbums(run.results, *run.albums, run.opt.settings);
}

void cliDrawResults(CliRun &run)
{
    QList<int> done;
    for (qsizetype i = 0; i < run.results.size(); ++i)
        if (outcomeSucceeded(run.results[i].outcome) && !run.inputCurves[size_t(i)].shortTerm.empty())
            done << int(i);
    run.outputCurves.resize(size_t(run.results.size()));
    cliRunOnPool(int(done.size()), run.opt.jobs, [&](int k) {
        const int i = done[k];
        const CliFileResult &r = std::as_const(run.results)[i];
        VXLoudness output;
        if (!r.output.isEmpty())
            output = VXMeasureFile(r.output, VXMeasureCurve | (run.opt.settings.dualMono ? VXMeasureDualMono : 0),
                                   &run.measuring)
                         .valueOr({});
        if (run.measuring.isCancelled())
            return;
        if (run.plot())
            run.drawPicture(i, output);
        run.outputCurves[size_t(i)] = std::move(output);
    }, [&run, &done](int k) {
        CliFileResult &r = run.results[done[k]];
        r.outputMaxShortTerm = run.outputCurves[size_t(done[k])].maxShortTerm;
        r.outputMaxMomentary = run.outputCurves[size_t(done[k])].maxMomentary;
    }, run.measuring);
}

int cliReport(CliRun &run)
{
    for (qsizetype i = 0; i < run.results.size(); ++i)
        if (!run.pictureWarnings[size_t(i)].isEmpty())
            run.results[i].warning = run.pictureWarnings[size_t(i)];
    int ok = 0, failed = 0;
    for (const CliFileResult &r : std::as_const(run.results))
        outcomeSucceeded(r.outcome) ? ++ok : ++failed;
    cliSay(QStringLiteral("%1 file(s): %2 succeeded, %3 not").arg(run.results.size()).arg(ok).arg(failed));
    const QJsonArray records = jsonRecords(run.results);
    cliWriteOut(stdout, run.opt.json ? QJsonDocument(records).toJson() : formatTable(run.results));
    bool reportFailed = false;
    if (!run.opt.reportFile.isEmpty()) {
        const VXResult<> report = cliWriteComplianceReport(run.opt, records, run.inputCurves, run.outputCurves);
        reportFailed = !report.ok();
        if (reportFailed)
            cliSay(QStringLiteral("evenloud-cli: no report: %1").arg(report.reason()));
    }

    run.jobs.clear();
    vx::stopWorkerProcess();
    VXAudioGain::cleanCache();
    if (run.cancelled || CliSignals::pending())
        return CliSignals::exitStatus();
    return failed > 0 || reportFailed ? 1 : 0;
}


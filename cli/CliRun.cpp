#include "cli/CliRun.h"

#include "cli/CliAlbums.h"
#include "cli/CliAnalyze.h"
#include "cli/CliBatch.h"
#include "cli/CliInputs.h"
#include "cli/CliCompliance.h"
#include "cli/CliProgress.h"
#include "cli/CliSignals.h"
#include "engine/VXAlbumBatch.h"
#include "engine/VXAnalysis.h"
#include "engine/VXAudioGain.h"
#include "engine/VXImport.h"
#include "engine/VXJournal.h"
#include "engine/codec/VXCodecConstants.h"
#include "engine/codec/VXLog.h"
#include "engine/codec/VXWorker.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>

#include <unistd.h>

void cliWriteOut(FILE *stream, const QByteArray &text)
{
    fwrite(text.constData(), 1, size_t(text.size()), stream);
    fflush(stream);
}

void cliSay(const QString &line) { cliWriteOut(stderr, (line + QLatin1Char('\n')).toLocal8Bit()); }

QString CliRun::drawPicture(const QString &input, const VXLoudness &inputCurve, const VXLoudness &output) const
{
    VXLoudnessPictureData data;
    data.title = QFileInfo(input).fileName();
    data.input = inputCurve;
    data.output = output;
    data.targetLufs = targetLufs;
    data.ceilingDbtp = opt.settings.truePeakCeiling;
    return cliWritePicture(opt.plotFolder, input, data).reason();
}

namespace {

QString journalKey(const CliOptions &opt)
{
    const VXJobSettings &s = opt.settings;
    QString mode = opt.analyze ? QStringLiteral("analyze") : s.undoLossless ? QStringLiteral("undo-lossless")
                 : s.tagsOnly && !s.lossless ? QStringLiteral("tags") : QStringLiteral("gain");
    if (s.lossless)
        mode += s.tagsOnly ? QStringLiteral("+lossless+tags") : QStringLiteral("+lossless");
    return VXJournal::settingsKey(s, mode, opt.replace ? QString() : opt.outputFolder);
}

} // namespace

bool cliOpenJournal(CliRun &run, const QString &path, int *status)
{
    VXResult<std::shared_ptr<VXJournal>> journal = VXJournal::open(path, journalKey(run.opt));
    if (!journal) {
        cliSay(QStringLiteral("evenloud-cli: --journal: %1").arg(journal.reason()));
        *status = 2;
        return false;
    }
    run.journal = *journal;
    return true;
}

bool cliCollectFiles(CliRun &run, int *status)
{
    const CliOptions &opt = run.opt;
    if (!opt.journal.isEmpty() && !cliOpenJournal(run, opt.journal, status))
        return false;
    QStringList inputs = opt.inputs;
    if (!opt.filesFrom.isEmpty()) {
        QStringList listed;
        if (const std::optional<QString> problem = cliReadFilesFrom(opt, &listed)) {
            cliSay(QStringLiteral("evenloud-cli: %1").arg(*problem));
            *status = 2;
            return false;
        }
        inputs += listed;
    }
    qint64 order = 0;
    CliInputs found = cliGatherInputs(opt, inputs, run.journal.get(), [&](const CliFileResult &missing) {
        CliFileResult r = missing;
        r.targetLufs = run.targetLufs;
        run.results.add(r, order++);
    });
    run.firstOrder = order;
    run.files = std::move(found.files);
    if (found.doneEarlier > 0)
        cliSay(QStringLiteral("%1 file(s) done by an earlier run (journal %2)").arg(found.doneEarlier).arg(opt.journal));
    if (found.otherShards > 0)
        cliSay(QStringLiteral("%1 file(s) left to the other shards (this is %2 of %3)")
                   .arg(found.otherShards)
                   .arg(opt.shardK)
                   .arg(opt.shardN));
    if (CliSignals::pending()) {
        *status = CliSignals::exitStatus();
        return false;
    }
    if (run.files.empty() && run.results.count() == 0) {
        if (found.doneEarlier > 0 || found.otherShards > 0) {
            *status = 0;  // nothing left for this process: a success
            return false;
        }
        cliSay(QStringLiteral("evenloud-cli: no audio files to process (supported: %1)")
                   .arg(VXImport::supportAudioGainExts().join(QStringLiteral(", "))));
        *status = 1;
        return false;
    }
    if (opt.settings.treatAsAlbums) {
        QStringList paths;
        paths.reserve(qsizetype(run.files.size()));
        for (const QString &file : run.files)
            paths << file;
        run.albums = std::make_shared<VXAlbumBatch>(paths, opt.settings.measureFlags() & VXMeasureDualMono);
    }
    return true;
}

void cliMeasureBeforeJobs(CliRun &run)
{
    if (!run.opt.analyze || !run.albums)
        return;
    const QMetaObject::Connection interrupts
        = QObject::connect(&run.watcher, &CliSignals::interrupted, &run.app, [&run](int count) {
              if (count >= 2) {
                  VXAudioGain::cleanCache();
                  _exit(CliSignals::exitStatus());
              }
              cliSay(QStringLiteral("Interrupted: cancelling the files being measured (Ctrl-C again to quit at once)"));
              run.measuring.cancel();
          });
    // --analyze --album: every album measured whole, before its tracks are.
    cliMeasureAlbums(*run.albums, run.opt.jobs, run.measuring);
    QObject::disconnect(interrupts);
}

void cliRunJobs(CliRun &run)
{
    const bool terminal = isatty(STDERR_FILENO);
    CliProgress progress(terminal, qint64(run.files.size()));
    // Engine log lines (fallbacks, placement failures) go above the status line.
    const VXLogSink previousSink = VXSetLogSink([&progress](const QString &line) { progress.message(line); });

    CliBatch batch(run, progress);
    QObject::connect(&batch, &CliBatch::finished, &run.app, &QCoreApplication::quit, Qt::QueuedConnection);
    const bool measuring = run.opt.settings.tagsOnly || run.opt.analyze;
    QObject::connect(&run.watcher, &CliSignals::interrupted, &run.app, [&](int count) {
        if (count >= 2) {
            // The user insists: leave now. The temporary files go with us;
            // results already placed are complete (placing is a rename).
            progress.finish();
            VXAudioGain::cleanCache();
            _exit(CliSignals::exitStatus());
        }
        progress.message(measuring ? QStringLiteral("Interrupted: cancelling the files being measured (Ctrl-C again to quit at once)")
                                   : QStringLiteral("Interrupted: cancelling running files (Ctrl-C again to quit at once)"));
        batch.cancel();
    });
    // Interrupted while measuring the albums: no file starts.
    if (CliSignals::pending() || run.measuring.isCancelled())
        batch.cancel();
    else
        batch.start();
    if (!run.files.empty())
        run.app.exec();
    progress.finish();
    VXSetLogSink(previousSink);
    run.cancelled = batch.isCancelled();
    if (run.journal)
        run.journal->sync();
}

namespace {

// The report is made of the objects --json prints, so the two never
// disagree, in the same order, each with the curves its file was drawn from.
bool writeComplianceReport(CliRun &run)
{
    QJsonArray records;
    std::vector<VXLoudness> inputs, outputs;
    run.results.forEach([&](const CliFileResult &r) {
        records.append(resultObject(r));
        const CliRun::Curves curves = run.reportCurves.take(r.input);
        inputs.emplace_back().shortTerm = curves.input;
        outputs.emplace_back().shortTerm = curves.output;
    });
    const VXResult<> report = cliWriteComplianceReport(run.opt, records, inputs, outputs);
    if (!report)
        cliSay(QStringLiteral("evenloud-cli: no report: %1").arg(report.reason()));
    return report.ok();
}

} // namespace

int cliReport(CliRun &run)
{
    cliSay(QStringLiteral("%1 file(s): %2 succeeded, %3 not").arg(run.results.count()).arg(run.results.succeeded()).arg(run.results.failed()));
    if (!run.opt.jsonl)
        run.results.writeReport(stdout, run.opt.json);
    const bool reportFailed = !run.opt.reportFile.isEmpty() && !writeComplianceReport(run);
    vx::stopWorkerProcess();
    VXAudioGain::cleanCache();
    if (run.cancelled || CliSignals::pending())
        return CliSignals::exitStatus();
    return run.results.failed() > 0 || reportFailed ? 1 : 0;
}

#include "cli/CliAnalyze.h"
#include "cli/CliBatch.h"
#include "cli/CliOptions.h"
#include "cli/CliProgress.h"
#include "cli/CliReport.h"
#include "cli/CliSignals.h"
#include "cli/CliTags.h"
#include "engine/VXAnalysis.h"
#include "engine/VXAudioGain.h"
#include "engine/VXImport.h"
#include "engine/codec/VXCancel.h"
#include "engine/codec/VXCodecConstants.h"
#include "engine/codec/VXLog.h"
#include "engine/codec/VXTranscode.h"
#include "engine/codec/VXWorker.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QGuiApplication>
#include <QThreadPool>

#include <cstdio>
#include <cstring>
#include <memory>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

namespace {

void writeOut(FILE *stream, const QByteArray &text)
{
    fwrite(text.constData(), 1, size_t(text.size()), stream);
    fflush(stream);
}

QString refusalReason(const VXError &error)
{
    if (error.userInfo.contains(QLatin1String(VXTranscodingDRMProtected)))
        return QStringLiteral("DRM protected stream detected, can not import such file.");
    if (!error.description.isEmpty())
        return error.description;
    return QStringLiteral("Failed to parser file with unknown reason.");
}

// An output folder that does not exist yet is created, as mkdir -p would.
bool prepareOutputFolder(const QString &folder, QString *why)
{
    QFileInfo info(folder);
    if (info.exists() && !info.isDir()) {
        *why = QStringLiteral("not a folder");
        return false;
    }
    if (!info.exists() && !QDir().mkpath(folder)) {
        *why = QStringLiteral("cannot be created");
        return false;
    }
    info.refresh();
    if (!info.isWritable()) {
        *why = QStringLiteral("not writable");
        return false;
    }
    return true;
}

// Text on a picture needs fonts, which only a QGuiApplication has; the
// offscreen platform gives one without a display. Without --plot the tool
// stays a plain QCoreApplication.
std::unique_ptr<QCoreApplication> makeApplication(int &argc, char **argv)
{
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--") == 0)
            break;
        if (std::strcmp(argv[i], "--plot") == 0 || std::strncmp(argv[i], "--plot=", 7) == 0) {
            qputenv("QT_QPA_PLATFORM", "offscreen");
            return std::make_unique<QGuiApplication>(argc, argv);
        }
    }
    return std::make_unique<QCoreApplication>(argc, argv);
}

} // namespace

int main(int argc, char *argv[])
{
    vx::configureProcess();
    const std::unique_ptr<QCoreApplication> application = makeApplication(argc, argv);
    QCoreApplication &app = *application;
    QCoreApplication::setApplicationName(QStringLiteral("evenloud-cli"));
    // First thing: a signal that comes early is still a clean cancel.
    CliSignals signalWatcher;

    const int defaultJobs = std::max(1, VXAudioGain::jobPool()->maxThreadCount());
    const CliParse parsed = parseCommandLine(app.arguments(), defaultJobs);
    if (!parsed.options) {
        writeOut(parsed.exitCode == 0 ? stdout : stderr, parsed.text.toLocal8Bit());
        return parsed.exitCode;
    }
    const CliOptions &opt = *parsed.options;
    // A file that crashes a decoder fails alone; the batch goes on.
    vx::useWorkerProcess();

    if (!opt.outputFolder.isEmpty()) {
        QString why;
        if (!prepareOutputFolder(opt.outputFolder, &why)) {
            writeOut(stderr, QStringLiteral("evenloud-cli: output folder '%1': %2\n")
                                 .arg(opt.outputFolder, why).toLocal8Bit());
            return 1;
        }
    }
    if (!opt.plotFolder.isEmpty()) {
        QString why;
        if (!prepareOutputFolder(opt.plotFolder, &why)) {
            writeOut(stderr, QStringLiteral("evenloud-cli: picture folder '%1': %2\n")
                                 .arg(opt.plotFolder, why).toLocal8Bit());
            return 1;
        }
    }

    const bool terminal = isatty(STDERR_FILENO);
    QList<CliFileResult> results;
    const float targetLufs = VXLoudnessScale::lufsForPosition(opt.target);

    auto say = [](const QString &line) { writeOut(stderr, (line + QLatin1Char('\n')).toLocal8Bit()); };
    for (const QString &path : opt.inputs) {
        QFileInfo info(path);
        if (!info.exists()) {
            say(QStringLiteral("evenloud-cli: %1: No such file or folder").arg(path));
            CliFileResult r;
            r.input = path;
            r.outcome = CliOutcome::Missing;
            r.reason = QStringLiteral("no such file or folder");
            r.targetLufs = targetLufs;
            results << r;
        } else if (!info.isDir() && !VXImport::passesExtensionTest(path)) {
            say(QStringLiteral("evenloud-cli: %1: skipped, not a supported extension").arg(path));
        }
    }

    // The app's walk order and extensions. A file is itself whatever its
    // spelling (./a.mp3, /abs/a.mp3, a link to it): one file is processed
    // once, and Take.wav and take.wav, two files here, both are. Hidden
    // entries of walked folders are skipped. Each file is probed as found.
    std::set<std::pair<dev_t, ino_t>> seen;
    QList<CliBatch::Job> jobs;
    VXImport::walk(opt.inputs, opt.recursive, CliSignals::pending(), [&](const QString &file) {
        struct stat st {};
        if (CliSignals::pending() || ::stat(QFile::encodeName(file).constData(), &st) != 0
            || !seen.insert({st.st_dev, st.st_ino}).second)
            return;
        CliFileResult r;
        r.input = file;
        r.targetLufs = targetLufs;
        if (opt.analyze || opt.tagsOnly) {
            r.outcome = CliOutcome::Analyzed;
            results << r;
            return;
        }
        VXError error;
        VXAudioGainPtr item = VXAudioGain::initWithFile(file, opt.outputFolder, &error);
        if (!item) {
            r.outcome = CliOutcome::Refused;
            r.reason = refusalReason(error);
            say(QStringLiteral("Can not import audio file(%1): %2").arg(file, r.reason));
            results << r;
            return;
        }
        item->setTargetLoudness(opt.target);
        item->setReplaceOriginalFile(opt.replace);
        VXJobSettings settings;
        settings.truePeakCeiling = opt.truePeak;
        settings.limitPeaks = opt.limitPeaks;
        settings.preserveModificationTime = opt.preserveMtime;
        settings.measureWithLoudnorm = opt.measureWithLoudnorm;
        settings.dualMono = opt.dualMono;
        settings.skipWithin = opt.skipWithin;
        item->setJobSettings(settings);
        item->setOutFolder(opt.replace ? QString() : opt.outputFolder);
        results << r;
        jobs << CliBatch::Job{item, int(results.size() - 1)};
    }, true);
    if (CliSignals::pending()) {
        VXAudioGain::cleanCache();
        return CliSignals::exitStatus();
    }
    if (results.isEmpty()) {
        say(QStringLiteral("evenloud-cli: no audio files to process (supported: %1)")
                .arg(VXImport::supportAudioGainExts().join(QStringLiteral(", "))));
        return 1;
    }

    // Pictures are drawn from the inputs as they are before any job runs
    // (with --replace nothing else is left of them afterwards).
    std::vector<VXLoudness> inputCurves(size_t(results.size()));
    const bool plot = !opt.plotFolder.isEmpty();
    // Stops the measuring around the batch (albums, tags, analysis,
    // pictures): given the interrupt here, on the event loop, since the
    // signal handler may only touch lock-free flags.
    VXCancel measuring;
    const QMetaObject::Connection measuringSignals
        = QObject::connect(&signalWatcher, &CliSignals::interrupted, &app, [&](int count) {
              if (count >= 2) {
                  VXAudioGain::cleanCache();
                  _exit(CliSignals::exitStatus());
              }
              say(QStringLiteral("Interrupted: cancelling the files being measured (Ctrl-C again to quit at once)"));
              measuring.cancel();
          });
    // Albums are measured whole before any of their tracks is touched: the
    // batch then applies each album's gain to its tracks.
    CliAlbums albums(size_t(results.size()));
    if (opt.album) {
        QList<int> members;
        for (qsizetype i = 0; i < results.size(); ++i)
            if (results[i].outcome != CliOutcome::Missing && results[i].outcome != CliOutcome::Refused)
                members << int(i);
        albums = cliMeasureAlbums(results, members, opt, targetLufs, measuring);
        for (const CliBatch::Job &j : std::as_const(jobs))
            j.item->setAlbumMember(albums[size_t(j.result)]);
    }
    if (opt.tagsOnly) {
        QList<int> todo;
        for (qsizetype i = 0; i < results.size(); ++i)
            if (results[i].outcome == CliOutcome::Analyzed)
                todo << int(i);
        cliWriteTags(results, todo, albums, opt, measuring, say);
    }
    // On a pool thread: reads the results, writes only its own slot of
    // pictureWarnings.
    std::vector<QString> pictureWarnings(size_t(results.size()));
    auto drawPicture = [&](int i, const VXLoudness &output) {
        const QString &input = std::as_const(results)[i].input;
        VXLoudnessPictureData data;
        data.title = QFileInfo(input).fileName();
        data.input = inputCurves[size_t(i)];
        data.output = output;
        data.targetLufs = targetLufs;
        data.ceilingDbtp = opt.truePeak;
        cliWritePicture(opt.plotFolder, input, data, &pictureWarnings[size_t(i)]);
    };
    if (opt.analyze || plot) {
        QList<int> measured;  // result indices
        for (qsizetype i = 0; i < results.size(); ++i)
            if (results[i].outcome == CliOutcome::Analyzed || !opt.analyze)
                if (results[i].outcome != CliOutcome::Missing && results[i].outcome != CliOutcome::Refused)
                    measured << int(i);
        std::vector<VXAnalysis> analyses(size_t(measured.size()));
        std::vector<char> ended(size_t(measured.size()), 0);
        cliRunOnPool(int(measured.size()), opt.jobs, [&](int k) {
            const int i = measured[k];
            VXAnalysis a = VXAnalyzeFile(std::as_const(results)[i].input, targetLufs, opt.truePeak, opt.limitPeaks,
                                         opt.dualMono, &measuring);
            inputCurves[size_t(i)] = a.loudness;
            if (a.ok && opt.analyze && plot)
                drawPicture(i, {});
            analyses[size_t(k)] = std::move(a);
        }, [&](int k) {
            CliFileResult &r = results[measured[k]];
            const VXAnalysis &a = analyses[size_t(k)];
            if (!a.ok && measuring.isCancelled())
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
            say(QStringLiteral("%1  %2%3").arg(outcomeName(r.outcome), -9).arg(r.input,
                                                 r.reason.isEmpty() ? QString() : QStringLiteral(": ") + r.reason));
        }, measuring);
        for (qsizetype k = 0; opt.analyze && k < measured.size(); ++k)
            if (!ended[size_t(k)])
                results[measured[k]].outcome = CliOutcome::Cancelled;
    }
    // An album's tracks would all take its gain.
    for (CliFileResult &r : results)
        if (opt.analyze && r.outcome == CliOutcome::Analyzed && !std::isnan(r.albumGainDb)) {
            r.gainDb = r.albumGainDb;
            r.normalization = r.albumNormalization;
        }
    QObject::disconnect(measuringSignals);
    if (CliSignals::pending() && !opt.analyze && !opt.tagsOnly) {
        VXAudioGain::cleanCache();
        return CliSignals::exitStatus();
    }

    quint64 totalDuration = 0;
    for (const CliBatch::Job &j : jobs)
        totalDuration += j.item->duration();
    CliProgress progress(terminal, int(jobs.size()), totalDuration);
    // Engine log lines (fallbacks, placement failures) go above the bars.
    const VXLogSink previousSink = VXSetLogSink([&progress](const QString &line) { progress.message(line); });

    CliBatch batch(jobs, results, opt.jobs, progress);
    QObject::connect(&batch, &CliBatch::finished, &app, &QCoreApplication::quit, Qt::QueuedConnection);
    QObject::connect(&signalWatcher, &CliSignals::interrupted, &app, [&](int count) {
        if (count >= 2) {
            // The user insists: leave now. The temporary files go with us;
            // results already placed are complete (placing is a rename).
            progress.finish();
            VXAudioGain::cleanCache();
            _exit(CliSignals::exitStatus());
        }
        progress.message(QStringLiteral("Interrupted: cancelling running files (Ctrl-C again to quit at once)"));
        batch.cancel();
        measuring.cancel();  // and the pictures after it
    });
    if (!opt.analyze && !opt.tagsOnly) {
        batch.start();
        if (!jobs.isEmpty())
            app.exec();
    }
    progress.finish();
    VXSetLogSink(previousSink);

    // After a run, each result's curve over its input's.
    if (plot && !opt.analyze && !batch.isCancelled() && !CliSignals::pending()) {
        QList<int> done;
        for (qsizetype i = 0; i < results.size(); ++i)
            if (outcomeSucceeded(results[i].outcome) && !inputCurves[size_t(i)].shortTerm.empty())
                done << int(i);
        cliRunOnPool(int(done.size()), opt.jobs, [&](int k) {
            const int i = done[k];
            VXLoudness output;
            QString why;
            if (!results[i].output.isEmpty())
                VXMeasureFile(results[i].output, VXMeasureCurve | (opt.dualMono ? VXMeasureDualMono : 0), &output,
                              &why, &measuring);
            if (!measuring.isCancelled())
                drawPicture(i, output);
        }, [](int) {}, measuring);
    }
    for (qsizetype i = 0; i < results.size(); ++i)
        if (!pictureWarnings[size_t(i)].isEmpty())
            results[i].warning = pictureWarnings[size_t(i)];

    int ok = 0, failed = 0;
    for (const CliFileResult &r : results)
        outcomeSucceeded(r.outcome) ? ++ok : ++failed;
    say(QStringLiteral("%1 file(s): %2 succeeded, %3 not").arg(results.size()).arg(ok).arg(failed));
    writeOut(stdout, opt.json ? formatJson(results) : formatTable(results));

    jobs.clear();
    vx::stopWorkerProcess();
    VXAudioGain::cleanCache();
    if (batch.isCancelled() || CliSignals::pending())
        return CliSignals::exitStatus();
    return failed > 0 ? 1 : 0;
}

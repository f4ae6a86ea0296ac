#include "cli/CliBatch.h"
#include "cli/CliOptions.h"
#include "cli/CliProgress.h"
#include "cli/CliReport.h"
#include "cli/CliSignals.h"
#include "engine/VXAudioGain.h"
#include "engine/VXImport.h"
#include "engine/codec/VXCodecConstants.h"
#include "engine/codec/VXLog.h"
#include "engine/codec/VXWorker.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QThreadPool>

#include <cstdio>
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

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
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

    if (!opt.replace) {
        QString why;
        if (!prepareOutputFolder(opt.outputFolder, &why)) {
            writeOut(stderr, QStringLiteral("evenloud-cli: output folder '%1': %2\n")
                                 .arg(opt.outputFolder, why).toLocal8Bit());
            return 1;
        }
    }

    const bool terminal = isatty(STDERR_FILENO);
    QList<CliFileResult> results;
    const float targetLufs = lufsForPosition(opt.target);

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
        item->setTruePeakCeiling(opt.truePeak);
        item->setLimitPeaks(opt.limitPeaks);
        item->setPreserveModificationTime(opt.preserveMtime);
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
    });
    batch.start();
    if (!jobs.isEmpty())
        app.exec();
    progress.finish();
    VXSetLogSink(previousSink);

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

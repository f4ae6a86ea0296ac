#include "cli/CliOptions.h"
#include "cli/CliRun.h"
#include "cli/CliSignals.h"
#include "cli/CliWatch.h"
#include "engine/VXAudioGain.h"
#include "engine/VXImport.h"
#include "engine/codec/VXTranscode.h"
#include "engine/codec/VXWorker.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QGuiApplication>
#include <QThreadPool>

#include <cstring>
#include <memory>

namespace {

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
// offscreen platform gives one without a display. Without --plot or
// --report the tool stays a plain QCoreApplication.
std::unique_ptr<QCoreApplication> makeApplication(int &argc, char **argv)
{
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--") == 0)
            break;
        if (std::strcmp(argv[i], "--plot") == 0 || std::strncmp(argv[i], "--plot=", 7) == 0
            || std::strcmp(argv[i], "--report") == 0 || std::strncmp(argv[i], "--report=", 9) == 0) {
            qputenv("QT_QPA_PLATFORM", "offscreen");
            return std::make_unique<QGuiApplication>(argc, argv);
        }
    }
    return std::make_unique<QCoreApplication>(argc, argv);
}

// The output and picture folders, made if missing; false once it has said
// why one cannot be used.
bool prepareFolders(const CliOptions &opt)
{
    const std::pair<QString, QString> folders[] = {{opt.outputFolder, QStringLiteral("output folder")},
                                                   {opt.plotFolder, QStringLiteral("picture folder")},
                                                   {opt.doneFolder, QStringLiteral("done folder")},
                                                   {opt.failedFolder, QStringLiteral("failed folder")}};
    for (const auto &[folder, what] : folders) {
        QString why;
        if (!folder.isEmpty() && !prepareOutputFolder(folder, &why)) {
            cliWriteOut(stderr, QStringLiteral("evenloud-cli: %1 '%2': %3\n").arg(what, folder, why).toLocal8Bit());
            return false;
        }
    }
    return true;
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
        cliWriteOut(parsed.exitCode == 0 ? stdout : stderr, parsed.text.toLocal8Bit());
        return parsed.exitCode;
    }
    const CliOptions &opt = *parsed.options;
    VXMeasureCache::configure(opt.cache);
    // A file that crashes a decoder fails alone; the batch goes on.
    vx::useWorkerProcess();
    if (!prepareFolders(opt))
        return 1;

    CliRun run(app, signalWatcher, opt);
    if (!opt.watchFolder.isEmpty())
        return cliRunWatch(run);
    int status = 0;
    if (!cliCollectFiles(run, &status)) {
        VXAudioGain::cleanCache();
        return status;
    }
    cliMeasureBeforeJobs(run);
    cliRunJobs(run);
    return cliReport(run);
}

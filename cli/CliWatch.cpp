#include "cli/CliWatch.h"

#include "cli/CliBatch.h"
#include "cli/CliProgress.h"
#include "cli/CliRun.h"
#include "cli/CliSignals.h"
#include "engine/VXAudioGain.h"
#include "engine/VXJournal.h"
#include "engine/VXPlacement.h"
#include "engine/VXWatchFolder.h"
#include "engine/codec/VXLog.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QFileInfo>
#include <QSaveFile>

#include <unistd.h>

namespace {

VXPlacement::Result moveInto(const QString &path, const QString &folder)
{
    const QFileInfo name(path);
    return VXPlacement::placeInFolder(path, folder, name.completeBaseName(), name.suffix());
}

void addWarning(CliFileResult &r, const QString &warning)
{
    r.warning = r.warning.isEmpty() ? warning : r.warning + QStringLiteral("; ") + warning;
}

} // namespace

CliWatch::CliWatch(CliRun &run, CliBatch &batch, QObject *parent) : QObject(parent), m_run(run), m_batch(batch)
{
    const CliOptions &opt = run.opt;
    VXWatchFolder::Options options;
    options.recursive = opt.recursive;
    options.settleMsecs = opt.settleMsecs;
    // What the run itself writes is never taken as a new arrival.
    for (const QString &folder : {opt.replace ? QString() : opt.outputFolder, opt.doneFolder, opt.failedFolder, opt.plotFolder})
        if (!folder.isEmpty())
            options.excluded << folder;
    // For file systems that report closes of local writes only, unknown to
    // VXWatchRules (and for tests).
    options.scanOnly = qgetenv("EVENLOUD_WATCH_SCAN") == "1";
    m_watcher = std::make_unique<VXWatchFolder>(opt.watchFolder, options);
    connect(m_watcher.get(), &VXWatchFolder::fileReady, this, &CliWatch::fileReady);
    connect(m_watcher.get(), &VXWatchFolder::lost, this, &CliWatch::lost);
    m_batch.setResultHook([this](CliFileResult &r) { resultReady(r); });
}

CliWatch::~CliWatch()
{
    m_batch.setResultHook({});
}

VXResult<> CliWatch::start()
{
    VXResult<> started = m_watcher->start();
    if (started && m_doneEarlier > 0)
        cliSay(QStringLiteral("%1 file(s) in %2 done by an earlier run (journal %3)")
                   .arg(m_doneEarlier)
                   .arg(m_run.opt.watchFolder, m_run.journal->path()));
    return started;
}

void CliWatch::stop() { m_watcher->stop(); }

void CliWatch::fileReady(const QString &path)
{
    if (m_batch.isCancelled())
        return;
    if (m_underWay.contains(path)) {
        m_again.insert(path);
        return;
    }
    const VXFileId id = VXFileId::of(path);
    if (!id.exists())
        return;
    if (const auto failed = m_failed.constFind(path); failed != m_failed.constEnd()) {
        if (*failed == id)
            return;
        m_failed.erase(failed);
    }
    if (m_run.journal && m_run.journal->wasDone(path)) {
        // Done, but a kill came before its original could be moved on.
        if (!m_run.opt.doneFolder.isEmpty()) {
            CliFileResult r = m_run.result(path, CliOutcome::Ok);
            moveToDone(r);
        }
        ++m_doneEarlier;
        return;
    }
    m_underWay.insert(path);
    ++m_taken;
    m_batch.add(path);
}

void CliWatch::resultReady(CliFileResult &r)
{
    const QString path = r.input;
    m_underWay.remove(path);
    if (outcomeSucceeded(r.outcome)) {
        if (!m_run.opt.doneFolder.isEmpty())
            moveToDone(r);
    } else if (r.outcome == CliOutcome::Failed || r.outcome == CliOutcome::Refused) {
        // A failure while stopping may be the stop's own doing: the file
        // stays for the next run to try again.
        const bool stopping = m_batch.isCancelled() || CliSignals::pending();
        if (!stopping && (m_run.opt.failedFolder.isEmpty() || !moveToFailed(r)))
            m_failed.insert(path, VXFileId::of(path));
    }
    // Not from inside the batch's report of the file.
    if (m_again.remove(path))
        QMetaObject::invokeMethod(this, [this, path] { fileReady(path); }, Qt::QueuedConnection);
}

void CliWatch::moveToDone(CliFileResult &r)
{
    if (!QFileInfo::exists(r.input))
        return;
    const VXPlacement::Result moved = moveInto(r.input, m_run.opt.doneFolder);
    if (!moved) {
        VXLog(QStringLiteral("%1 stays in the watched folder: %2").arg(r.input, moved.reason()));
        addWarning(r, QStringLiteral("not moved to the done folder: %1").arg(moved.reason()));
    }
}

bool CliWatch::moveToFailed(CliFileResult &r)
{
    if (!QFileInfo::exists(r.input))
        return true;
    const VXPlacement::Result moved = moveInto(r.input, m_run.opt.failedFolder);
    if (!moved) {
        VXLog(QStringLiteral("%1 stays in the watched folder: %2").arg(r.input, moved.reason()));
        addWarning(r, QStringLiteral("not moved to the failed folder: %1").arg(moved.reason()));
        return false;
    }
    QSaveFile reason(moved->path + QStringLiteral(".txt"));
    const QString text = QStringLiteral("%1\n\nfile: %2\nfailed: %3\n")
                             .arg(r.reason.isEmpty() ? QStringLiteral("failed") : r.reason, r.input,
                                  QDateTime::currentDateTime().toString(Qt::ISODate));
    if (!reason.open(QIODevice::WriteOnly) || reason.write(text.toUtf8()) < 0 || !reason.commit())
        VXLog(QStringLiteral("Cannot write %1: %2").arg(reason.fileName(), reason.errorString()));
    return true;
}

int cliRunWatch(CliRun &run)
{
    const CliOptions &opt = run.opt;
    int status = 0;
    // Said before a journal is made for a folder that is not there.
    if (!QFileInfo(opt.watchFolder).isDir()) {
        cliSay(QStringLiteral("evenloud-cli: --watch: %1: no such folder").arg(opt.watchFolder));
        VXAudioGain::cleanCache();
        return 1;
    }
    const QString journal = !opt.journal.isEmpty()
        ? opt.journal
        : VXWatchRules::defaultJournalPath(opt.watchFolder, opt.replace ? QString() : opt.outputFolder);
    if (!cliOpenJournal(run, journal, &status)) {
        VXAudioGain::cleanCache();
        return status;
    }
    CliProgress progress(isatty(STDERR_FILENO), -1);
    progress.setWatched(opt.watchFolder);
    const VXLogSink previousSink = VXSetLogSink([&progress](const QString &line) { progress.message(line); });

    CliBatch batch(run, progress);
    batch.setOpen(true);
    CliWatch watch(run, batch);
    bool lost = false;
    QObject::connect(&batch, &CliBatch::finished, &run.app, &QCoreApplication::quit, Qt::QueuedConnection);
    QObject::connect(&run.watcher, &CliSignals::interrupted, &run.app, [&](int count) {
        if (count >= 2) {
            progress.finish();
            VXAudioGain::cleanCache();
            _exit(CliSignals::exitStatus());
        }
        progress.message(QStringLiteral("Stopping: running files finish placing or are cancelled "
                                        "(Ctrl-C again to quit at once)"));
        watch.stop();
        batch.cancel();
    });
    QObject::connect(&watch, &CliWatch::lost, &run.app, [&](const QString &reason) {
        progress.message(QStringLiteral("evenloud-cli: stopped watching: %1").arg(reason));
        lost = true;
        batch.close();
    });
    batch.start();
    progress.message(QStringLiteral("Watching %1 (journal %2); Ctrl-C or SIGTERM stops")
                         .arg(opt.watchFolder, run.journal->path()));
    if (const VXResult<> started = watch.start(); !started) {
        cliSay(QStringLiteral("evenloud-cli: --watch: %1").arg(started.reason()));
        progress.finish();
        VXSetLogSink(previousSink);
        VXAudioGain::cleanCache();
        return 1;
    }
    if (CliSignals::pending())
        batch.cancel();
    run.app.exec();
    watch.stop();
    progress.finish();
    VXSetLogSink(previousSink);
    run.cancelled = batch.isCancelled();
    run.journal->sync();
    status = cliReport(run);
    return lost && status == 0 ? 1 : status;
}

#include "app/RQWatchController.h"

#include <QWidget>

#include "app/RQBatchController.h"  // its inline setter needs QWidget whole
#include "app/RQOutputFolderController.h"
#include "app/RQSettingsController.h"
#include "engine/VXAudioGainList.h"
#include "engine/VXGainState.h"
#include "engine/VXImport.h"
#include "engine/VXJournal.h"
#include "engine/VXWatchFolder.h"
#include "engine/codec/VXLog.h"

#include <QDir>
#include <QFileInfo>
#include <QThread>
#include <QtConcurrent>

namespace {
struct Probe {
    VXAudioGainPtr item;
    VXError error;
};
} // namespace

RQWatchController::RQWatchController(VXAudioGainList *list, RQBatchController *batch,
                                     const RQOutputFolderController *output, const RQSettingsController *settings,
                                     QObject *parent)
    : QObject(parent), m_list(list), m_batch(batch), m_output(output), m_settings(settings)
{
    // Files arrive one at a time: probing them two at a time keeps up.
    m_pool.setMaxThreadCount(2);
    connect(m_batch, &RQBatchController::jobEnded, this, &RQWatchController::jobEnded);
}

RQWatchController::~RQWatchController()
{
    stop();
    m_pool.waitForDone();
}

bool RQWatchController::isWatching() const { return m_watcher && m_watcher->isWatching(); }

VXResult<> RQWatchController::start(const QString &folder)
{
    stop();
    const QString in = QDir::cleanPath(QFileInfo(folder).absoluteFilePath());
    const VXJobSettings &settings = m_settings->settings();
    const bool inPlace = m_output->replaceOriginalFile() || (settings.tagsOnly && m_output->outFolder().isNull());
    const QString out = inPlace ? QString() : QDir::cleanPath(m_output->outFolder());
    if (!inPlace && m_output->outFolder().isNull())
        return VXError::because(tr("Choose an output folder first: the watched files' results go there."));
    if (out == in)
        return VXError::because(tr("The output folder cannot be the watched folder: its results would be taken "
                                   "as new files. Choose another output folder, or replace the original files."));
    m_jobSettings = settings;
    // An album is never complete while its tracks arrive one by one.
    m_jobSettings.treatAsAlbums = false;
    m_destination = out;
    const QString mode = settings.tagsOnly ? QStringLiteral("tags") : QStringLiteral("gain");
    VXResult<std::shared_ptr<VXJournal>> journal = VXJournal::open(VXWatchRules::defaultJournalPath(in, out),
                                                                   VXJournal::settingsKey(m_jobSettings, mode, out));
    if (!journal)
        return VXError::because(tr("This folder is already watched into the same place, perhaps by the "
                                   "evenloud-watch service (%1).").arg(journal.reason()));
    m_journal = *journal;

    VXWatchFolder::Options options;
    if (!out.isEmpty())
        options.excluded << out;
    m_watcher = std::make_unique<VXWatchFolder>(in, options);
    connect(m_watcher.get(), &VXWatchFolder::fileReady, this, &RQWatchController::fileReady);
    connect(m_watcher.get(), &VXWatchFolder::lost, this, [this](const QString &reason) {
        stop();
        emit lost(reason);
    });
    m_folder = in;
    m_done = m_failed = 0;
    if (VXResult<> started = m_watcher->start(); !started) {
        stop();
        return started;
    }
    emit watchingChanged();
    emit statusChanged();
    return {};
}

void RQWatchController::stop()
{
    if (!m_watcher)
        return;
    // Jobs under way go on as rows of their own; what is still being probed
    // is dropped when it comes back.
    m_watcher.reset();
    m_journal.reset();
    m_underWay.clear();
    m_again.clear();
    m_failedAs.clear();
    m_folder.clear();
    emit watchingChanged();
    emit statusChanged();
}

QString RQWatchController::status() const
{
    if (!isWatching())
        return {};
    QString text = tr("Watching %1 · %2 done").arg(QFileInfo(m_folder).fileName()).arg(m_done);
    if (m_failed > 0)
        text += tr(" · %1 failed").arg(m_failed);
    return text;
}

void RQWatchController::fileReady(const QString &path)
{
    if (m_underWay.contains(path)) {
        m_again.insert(path);
        return;
    }
    const VXFileId id = VXFileId::of(path);
    if (!id.exists() || (m_failedAs.contains(path) && m_failedAs.value(path) == id) || m_journal->wasDone(path))
        return;
    m_failedAs.remove(path);
    m_underWay.insert(path);
    QThread *target = thread();
    QtConcurrent::run(&m_pool, [path, target] {
        Probe probe;
        probe.item = VXAudioGain::initWithFile(path, QString(), &probe.error);
        if (probe.item)
            probe.item->moveToThread(target);
        return probe;
    }).then(this, [this, path](const Probe &probe) { probed(path, probe.item, probe.error); });
}

void RQWatchController::probed(const QString &path, const VXAudioGainPtr &item, const VXError &error)
{
    if (!isWatching() || !m_underWay.contains(path))
        return;
    if (!item) {
        m_underWay.remove(path);
        m_failedAs.insert(path, VXFileId::of(path));
        ++m_failed;
        VXLog(QStringLiteral("Can not import audio file(%1): %2").arg(path, error.description));
        emit statusChanged();
        return;
    }
    item->setTargetLoudness(m_jobSettings.targetLoudness);
    item->setJournal(m_journal);
    // A file that arrives again with new content takes its old row's place.
    if (const int row = rowOf(path); row >= 0 && !m_list->at(row)->isRunning())
        m_list->replaceObject(row, item);
    else
        m_list->insertObject(item, m_list->count());
    const QString folder = m_destination.isEmpty() ? m_output->outFolder() : m_destination;
    m_batch->start({item}, m_jobSettings, folder, m_destination.isEmpty());
    emit jobStarted();
}

void RQWatchController::jobEnded(const VXAudioGainPtr &item)
{
    if (!item)
        return;
    // The row may stay for long: it must not keep the journal, and with it
    // the folders, from a watch started later (the service's), even when
    // this watch ended while the job ran.
    item->setJournal({});
    if (!m_underWay.remove(item->inputFile()))
        return;
    const QString path = item->inputFile();
    if (item->retCode() == VXGainSucceeded) {
        ++m_done;
    } else if (item->retCode() == VXGainFailed) {
        ++m_failed;
        m_failedAs.insert(path, VXFileId::of(path));
    }
    emit statusChanged();
    if (m_again.remove(path))
        QMetaObject::invokeMethod(this, [this, path] {
            if (isWatching())
                fileReady(path);
        }, Qt::QueuedConnection);
}

int RQWatchController::rowOf(const QString &path) const
{
    if (!m_list->containsInput(path))
        return -1;
    const QList<VXAudioGainPtr> &items = m_list->items();
    for (int row = 0; row < items.size(); ++row)
        if (VXImport::isSameInput(items[row]->inputFile(), path))
            return row;
    return -1;
}

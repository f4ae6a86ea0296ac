#include "app/RQImportController.h"

#include "app/RQImportWalk.h"
#include "app/RQOutputFolderController.h"
#include "app/RQSettingsController.h"
#include "engine/VXAudioGainList.h"
#include "engine/VXImport.h"
#include "engine/VXMainThread.h"
#include "engine/codec/VXCodecConstants.h"

#include <QFileInfo>
#include <QMimeData>
#include <QPointer>
#include <QThread>
#include <QtConcurrent>

RQImportController::RQImportController(VXAudioGainList *list, const RQOutputFolderController *output,
                                       const RQSettingsController *settings, QObject *parent)
    : QObject(parent), m_list(list), m_output(output), m_settings(settings)
{
    m_pool.setMaxThreadCount(4);
    m_probePool.setMaxThreadCount(qMax(2, QThread::idealThreadCount()));
}

RQImportController::~RQImportController()
{
    // The pool waits for the walks as it goes; they stop at their next file.
    cancelImport();
}

QStringList RQImportController::pathsFromURLs(const QList<QUrl> &urls)
{
    QStringList paths;
    paths.reserve(urls.size());
    for (const QUrl &url : urls) {
        // A drop from a browser may carry web addresses; only local files count.
        if (url.isLocalFile())
            paths.append(url.toLocalFile());
    }
    return paths;
}

Qt::DropAction RQImportController::dragOperationWithDragInfo(const QMimeData *data) const
{
    if (!data || !data->hasUrls())
        return Qt::IgnoreAction;
    const QStringList paths = pathsFromURLs(data->urls());
    for (const QString &path : paths) {
        const QFileInfo info(path);
        if (info.isDir() || (info.exists() && VXImport::passesExtensionTest(path)))
            return Qt::CopyAction;
    }
    return Qt::IgnoreAction;
}

bool RQImportController::acceptDropWithDragInfo(const QMimeData *data)
{
    if (!data || !data->hasUrls())
        return false;
    const QStringList paths = pathsFromURLs(data->urls());
    if (paths.isEmpty())
        return false;
    importAudioWithPaths(paths, false);
    return true;
}

bool RQImportController::openPaths(const QStringList &paths)
{
    // The same way in as a drop of the same files from the file manager.
    QList<QUrl> urls;
    urls.reserve(paths.size());
    for (const QString &path : paths)
        urls.append(QUrl::fromLocalFile(path));
    QMimeData data;
    data.setUrls(urls);
    return acceptDropWithDragInfo(&data);
}

void RQImportController::importAudioWithPaths(const QStringList &paths, bool recursive)
{
    // Each import has a cancel of its own: starting one must never revive a
    // walk the user has just cancelled.
    const auto cancel = std::make_shared<std::atomic<bool>>(false);
    std::erase_if(m_importCancels, [](const auto &weak) { return weak.expired(); });
    m_importCancels.push_back(cancel);
    // The commands go off before this returns, not one hop later: a click
    // on Gain right after a drop must not slip in before the import.
    if (m_runningImports++ == 0)
        emit allowedImportChanged();
    setImportingFileName(tr("Import, please wait..."));

    const QPointer<RQImportController> self(this);
    RQImportWalk walk;
    walk.paths = paths;
    walk.recursive = recursive;
    walk.cancel = cancel.get();
    // The list outlives the walk: the controller waits for its walks.
    walk.list = m_list;
    walk.itemThread = thread();
    walk.probePool = &m_probePool;
    // Files wait for the window to take them, rather than queueing as a
    // continuation: the walk learns when nobody takes files any more, and
    // probes stay no more than a few ahead of the rows.
    // A file measured before shows its figures and picture at once.
    walk.keptFlags = VXMeasureCurve | (m_settings->settings().dualMono ? VXMeasureDualMono : 0);
    walk.hand = [self, cancel](const QList<RQImportWalk::Probed> &files) {
        const bool hopped = VXRunOnMainThread([&] {
            for (const RQImportWalk::Probed &file : files) {
                // An alert for a refused file may have let the user cancel.
                if (!self || cancel->load())
                    break;
                self->importSingleFile(file.path, file.item, file.error);
                if (self && file.item && file.kept)
                    emit self->measurementKept(file.item.get(), *file.kept);
            }
        });
        // The application is shutting down: nobody takes files any more.
        if (!hopped)
            cancel->store(true);
        return hopped;
    };
    QtConcurrent::run(&m_pool, [walk] { walk.run(); }).then(this, [this] { importEnded(); });
}

void RQImportController::importEnded()
{
    const bool counted = m_runningImports > 0;
    if (counted && --m_runningImports > 0)
        return;
    if (counted)
        emit allowedImportChanged();
    emit importFinished();
}

bool RQImportController::audioFileImported(const QString &path) const
{
    return m_list->containsInput(path);
}

void RQImportController::importSingleFile(const QString &path)
{
    if (audioFileImported(path))
        return;
    VXError error;
    importSingleFile(path, VXAudioGain::initWithFile(path, m_output->outFolder(), &error), error);
}

void RQImportController::importSingleFile(const QString &path, const VXAudioGainPtr &item, const VXError &error)
{
    // Checked again here: another import may have added the file meanwhile.
    if (audioFileImported(path))
        return;
    if (!item) {
        showImportFailure(path, error);
        return;
    }
    item->setOutFolder(m_output->outFolder());
    item->setTargetLoudness(m_settings->settings().targetLoudness);
    setImportingFileName(item->inputFileName());
    m_list->insertObject(item, m_list->count());
}

void RQImportController::showImportFailure(const QString &path, const VXError &error)
{
    const QString informative = error.userInfo.contains(QLatin1String(VXTranscodingDRMProtected))
        ? tr("DRM protected stream detected, can not import such file.")
        : tr("Failed to parser file with unknown reason.");
    emit alertRequested(tr("Can not import audio file(%1)").arg(path), informative);
}

void RQImportController::cancelImport()
{
    for (const auto &weak : m_importCancels)
        if (const auto cancel = weak.lock())
            cancel->store(true);
}

void RQImportController::waitForDone(int msecs)
{
    // The walks wait for their own probes.
    m_pool.waitForDone(msecs);
}

void RQImportController::setImportingFileName(const QString &name)
{
    if (m_importingFileName == name)
        return;
    m_importingFileName = name;
    emit importingFileNameChanged();
}

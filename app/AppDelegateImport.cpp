#include "app/AppDelegate.h"

#include "app/RQImportWalk.h"
#include "app/RQOpenPanel.h"
#include "app/RQRecursiveViewCtrl.h"
#include "engine/VXImport.h"
#include "engine/VXMainThread.h"
#include "engine/codec/VXCodecConstants.h"
#include "engine/codec/VXError.h"

#include "ui_MainWindow.h"

#include <QFileInfo>
#include <QMainWindow>
#include <QMimeData>
#include <QProgressBar>
#include <QtConcurrent>

QStringList AppDelegate::pathsFromURLs(const QList<QUrl> &urls)
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

Qt::DropAction AppDelegate::dragOperationWithDragInfo(const QMimeData *data) const
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

bool AppDelegate::acceptDropWithDragInfo(const QMimeData *data)
{
    if (!data || !data->hasUrls())
        return false;
    const QStringList paths = pathsFromURLs(data->urls());
    if (paths.isEmpty())
        return false;
    importAudioWithPaths(paths, false);
    return true;
}

bool AppDelegate::openPaths(const QStringList &paths)
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

void AppDelegate::selectAudioFiles()
{
    if (m_dialog)
        return;
    auto *panel = new RQOpenPanel(m_window, VXImport::supportAudioGainExts());
    panel->setAttribute(Qt::WA_DeleteOnClose);
    RQRecursiveViewCtrl *recursive = RQRecursiveViewCtrl::shareRecursiveViewCtrl();
    recursive->setRecursive(false);
    panel->setAccessoryView(recursive->view());
    connect(panel, &QDialog::finished, this,
            [this, panel](int result) {
                m_dialog = nullptr;
                openPanelDidEnd(result, panel->selectedFiles());
            });
    m_dialog = panel;
    panel->setWindowModality(Qt::WindowModal);
    panel->open();
}

void AppDelegate::openPanelDidEnd(int result, const QStringList &paths)
{
    if (result != QDialog::Accepted)
        return;
    importAudioWithPaths(paths, RQRecursiveViewCtrl::shareRecursiveViewCtrl()->recursive());
}

void AppDelegate::importAudioWithURLs(const QList<QUrl> &urls, bool recursive)
{
    importAudioWithPaths(pathsFromURLs(urls), recursive);
}

void AppDelegate::importAudioWithPaths(const QStringList &paths, bool recursive)
{
    // Each import has a cancel of its own: starting one must never revive a
    // walk the user has just cancelled.
    const auto cancel = std::make_shared<std::atomic<bool>>(false);
    std::erase_if(m_importCancels, [](const auto &weak) { return weak.expired(); });
    m_importCancels.push_back(cancel);
    // The commands go off before this returns, not one hop later: a click
    // on Gain right after a drop must not slip in before the import.
    if (m_runningImports++ == 0) {
        setAllowedImport(false);
        m_ui->importPrgView->setBusy(true);
    }
    setImportingFileName(tr("Import, please wait..."));

    const QPointer<AppDelegate> self(this);
    RQImportWalk walk;
    walk.paths = paths;
    walk.recursive = recursive;
    walk.cancel = cancel.get();
    // The list outlives the walk: the controller waits for its walks.
    walk.list = m_audioGains;
    walk.itemThread = thread();
    // Each file waits for the window to take it, rather than queueing as a
    // continuation: the walk learns when nobody takes files any more, and
    // probes stay no more than a few ahead of the rows.
    walk.hand = [self, cancel](const QString &path, const VXAudioGainPtr &item, const VXError &error) {
        const bool hopped = VXRunOnMainThread([&] {
            if (self)
                self->importSingleFile(path, item, error);
        });
        // The application is shutting down: nobody takes files any more.
        if (!hopped)
            cancel->store(true);
        return hopped;
    };
    QtConcurrent::run(&m_importPool, [walk] { walk.run(); }).then(this, [this] { importEnded(); });
}

void AppDelegate::importEnded()
{
    if (m_runningImports > 0 && --m_runningImports > 0)
        return;
    m_ui->importPrgView->setBusy(false);
    setAllowedImport(true);
    emit importFinished();
}

bool AppDelegate::audioFileImported(const QString &path) const
{
    return m_audioGains->containsInput(path);
}

void AppDelegate::importSingleFile(const QString &path)
{
    if (audioFileImported(path))
        return;
    VXError error;
    importSingleFile(path, VXAudioGain::initWithFile(path, m_outFolder, &error), error);
}

void AppDelegate::importSingleFile(const QString &path, const VXAudioGainPtr &item, const VXError &error)
{
    // Checked again here: another import may have added the file meanwhile.
    if (audioFileImported(path))
        return;
    if (!item) {
        showImportFailure(path, error);
        return;
    }
    item->setOutFolder(m_outFolder);
    item->setTargetLoudness(m_newRowTarget);
    setImportingFileName(item->inputFileName());
    m_audioGains->insertObject(item, m_audioGains->count());
}

void AppDelegate::showImportFailure(const QString &path, const VXError &error)
{
    const QString informative = error.userInfo.contains(QLatin1String(VXTranscodingDRMProtected))
        ? tr("DRM protected stream detected, can not import such file.")
        : tr("Failed to parser file with unknown reason.");
    alert(tr("Can not import audio file(%1)").arg(path), informative);
}

void AppDelegate::cancelImport()
{
    for (const auto &weak : m_importCancels)
        if (const auto cancel = weak.lock())
            cancel->store(true);
}

void AppDelegate::setAllowedImport(bool allowed)
{
    if (m_allowedImport == allowed)
        return;
    m_allowedImport = allowed;
    emit allowedImportChanged();
    updateDerivedFlags();
}

void AppDelegate::setImportingFileName(const QString &name)
{
    if (m_importingFileName == name)
        return;
    m_importingFileName = name;
    emit importingFileNameChanged();
}

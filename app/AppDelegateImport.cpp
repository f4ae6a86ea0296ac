#include "app/AppDelegate.h"

#include "app/RQImportController.h"
#include "app/RQOpenPanel.h"
#include "app/RQRecursiveViewCtrl.h"
#include "engine/VXImport.h"

#include <QMainWindow>

// The window's import commands; the import itself is RQImportController's.

QStringList AppDelegate::pathsFromURLs(const QList<QUrl> &urls)
{
    return RQImportController::pathsFromURLs(urls);
}

Qt::DropAction AppDelegate::dragOperationWithDragInfo(const QMimeData *data) const
{
    return m_import->dragOperationWithDragInfo(data);
}

bool AppDelegate::acceptDropWithDragInfo(const QMimeData *data)
{
    return m_import->acceptDropWithDragInfo(data);
}

bool AppDelegate::openPaths(const QStringList &paths)
{
    return m_import->openPaths(paths);
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
    m_import->importAudioWithPaths(paths, recursive);
}

bool AppDelegate::audioFileImported(const QString &path) const
{
    return m_import->audioFileImported(path);
}

void AppDelegate::importSingleFile(const QString &path)
{
    m_import->importSingleFile(path);
}

void AppDelegate::importSingleFile(const QString &path, const VXAudioGainPtr &item, const VXError &error)
{
    m_import->importSingleFile(path, item, error);
}

QString AppDelegate::importingFileName() const
{
    return m_import->importingFileName();
}

void AppDelegate::cancelImport()
{
    m_import->cancelImport();
}

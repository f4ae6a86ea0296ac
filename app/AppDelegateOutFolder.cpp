#include "app/AppDelegate.h"

#include "app/RQAppSettings.h"
#include "app/RQPalette.h"

#include "ui_MainWindow.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDesktopServices>
#include <QDir>
#include <QFileDialog>
#include <QFileInfo>

QString AppDelegate::finalOutFolder() const
{
    return m_outFolder;
}

void AppDelegate::setOutFolder(const QString &folder)
{
    if (m_outFolder == folder)
        return;
    m_outFolder = folder;
    emit outFolderChanged();
}

void AppDelegate::setReplaceOriginalFile(bool replace)
{
    if (m_replaceOriginalFile == replace)
        return;
    m_replaceOriginalFile = replace;
    emit replaceOriginalFileChanged();
}

void AppDelegate::selectOutFolder()
{
    selectOutputFolder(false);
}

void AppDelegate::selectOutputFolder(bool startAfter)
{
    if (m_dialog)
        return;
    auto *dialog = new QFileDialog(m_window);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setWindowTitle(tr("Choose Output Folder"));
    dialog->setFileMode(QFileDialog::Directory);
    dialog->setOption(QFileDialog::ShowDirsOnly, true);
    dialog->setAcceptMode(QFileDialog::AcceptOpen);
    if (!m_outFolder.isNull())
        dialog->setDirectory(m_outFolder);
    connect(dialog, &QDialog::finished, this, [this, dialog, startAfter](int result) {
        m_dialog = nullptr;
        const QStringList chosen = dialog->selectedFiles();
        folderSheetDidEnd(result, chosen.isEmpty() ? QString() : chosen.first(), startAfter);
    });
    m_dialog = dialog;
    dialog->setWindowModality(Qt::WindowModal);
    dialog->open();
}

void AppDelegate::folderSheetDidEnd(int result, const QString &folder, bool startAfter)
{
    if (result != QDialog::Accepted || folder.isEmpty())
        return;
    setOutFolder(QDir::cleanPath(QFileInfo(folder).absoluteFilePath()));
    m_ui->btnActiveFolder->setVisible(true);
    saveUserSelectedURL(m_outFolder);
    // After the dialog has finished closing, as a fresh event.
    if (startAfter)
        QMetaObject::invokeMethod(this, &AppDelegate::gainAudios, Qt::QueuedConnection);
}

void AppDelegate::saveUserSelectedURL(const QString &folder)
{
    // A folder that cannot be stored is still used for this run.
    RQAppSettings::setUserSelectedOutFolder(folder);
}

QString AppDelegate::userSelectOutFolder() const
{
    return RQAppSettings::userSelectedOutFolder();
}

void AppDelegate::avtiveOutputPath()
{
    const QString folder = finalOutFolder();
    if (folder.isNull())
        return;
    if (m_reveal)
        m_reveal(folder);
}

void AppDelegate::revealFolder(const QString &folder)
{
    const QUrl url = QUrl::fromLocalFile(folder);
    // With nothing to show the folder, the click must not pass in silence.
    const QPointer<AppDelegate> self(this);
    const auto open = [self, url, folder] {
        if (!QDesktopServices::openUrl(url) && self)
            self->alert(tr("Cannot show the output folder"),
                        tr("No file manager is available to show %1.").arg(folder));
    };
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        open();
        return;
    }
    // Asynchronous: a file manager that is slow to start must not freeze
    // the window.
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("/org/freedesktop/FileManager1"),
        QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("ShowItems"));
    call << QStringList{url.toString()} << QString();
    auto *watcher = new QDBusPendingCallWatcher(bus.asyncCall(call, 5000), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [open](QDBusPendingCallWatcher *w) {
        if (w->isError())
            open();
        w->deleteLater();
    });
}

void AppDelegate::chkReplaceOriginalFileChanged()
{
    setTextFolderColor();
}

void AppDelegate::setTextFolderColor()
{
    const QColor color = m_replaceOriginalFile ? RQPalette::dimmedText() : RQPalette::lightTitle();
    RQPalette::setTextColor(m_ui->txtFolder, color);
    // The "no folder" hint is drawn as a folder's name would be.
    QPalette palette = m_ui->txtFolder->palette();
    for (auto group : {QPalette::Active, QPalette::Inactive, QPalette::Disabled})
        palette.setColor(group, QPalette::PlaceholderText, color);
    m_ui->txtFolder->setPalette(palette);
}

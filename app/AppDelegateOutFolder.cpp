#include "app/AppDelegate.h"

#include "app/RQPalette.h"

#include "ui_MainWindow.h"

#include <QFileDialog>

// The output folder's commands and its field; where results go is
// RQOutputFolderController's.

QString AppDelegate::finalOutFolder() const
{
    return m_output->outFolder();
}

void AppDelegate::setOutFolder(const QString &folder)
{
    m_output->setOutFolder(folder);
}

void AppDelegate::setReplaceOriginalFile(bool replace)
{
    m_output->setReplaceOriginalFile(replace);
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
    if (!outFolder().isNull())
        dialog->setDirectory(outFolder());
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
    m_output->choose(folder);
    m_ui->btnActiveFolder->setVisible(true);
    // After the dialog has finished closing, as a fresh event.
    if (startAfter)
        QMetaObject::invokeMethod(this, &AppDelegate::gainAudios, Qt::QueuedConnection);
}

void AppDelegate::saveUserSelectedURL(const QString &folder)
{
    RQOutputFolderController::saveUserSelectedURL(folder);
}

QString AppDelegate::userSelectOutFolder() const
{
    return RQOutputFolderController::userSelectOutFolder();
}

void AppDelegate::avtiveOutputPath()
{
    m_output->reveal();
}

void AppDelegate::chkReplaceOriginalFileChanged()
{
    setTextFolderColor();
}

void AppDelegate::setTextFolderColor()
{
    const QColor color = replaceOriginalFile() ? RQPalette::dimmedText() : RQPalette::lightTitle();
    RQPalette::setTextColor(m_ui->txtFolder, color);
    // The "no folder" hint is drawn as a folder's name would be.
    QPalette palette = m_ui->txtFolder->palette();
    for (auto group : {QPalette::Active, QPalette::Inactive, QPalette::Disabled})
        palette.setColor(group, QPalette::PlaceholderText, color);
    m_ui->txtFolder->setPalette(palette);
}

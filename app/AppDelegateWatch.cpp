#include "app/AppDelegate.h"

#include "app/RQPalette.h"
#include "app/RQWatchController.h"

#include "ui_MainWindow.h"

#include <QFileDialog>
#include <QLabel>

// File > Watch Folder... and the watch's status in the bottom bar; the
// watch itself is RQWatchController's.

void AppDelegate::connectWatch()
{
    Ui::MainWindow &ui = *m_ui;
    m_watchAction = new QAction(tr("&Watch Folder…"), m_window);
    m_watchAction->setToolTip(tr("Process each file that arrives in a folder, as it arrives"));
    ui.menuFile->insertAction(ui.actionPreserveModificationTime, m_watchAction);
    connect(m_watchAction, &QAction::triggered, this, &AppDelegate::watchFolder);

    m_watchStatus = new QLabel(ui.bottomView);
    m_watchStatus->setObjectName(QStringLiteral("lblWatchStatus"));
    m_watchStatus->setAccessibleName(tr("Watched folder"));
    m_watchStatus->hide();
    RQPalette::setTextColor(m_watchStatus, RQPalette::lightTitle());
    ui.bottomLayout->insertWidget(ui.bottomLayout->indexOf(ui.btnGain), m_watchStatus);

    connect(m_watch, &RQWatchController::statusChanged, this, [this] {
        m_watchStatus->setText(m_watch->status());
        m_watchStatus->setVisible(m_watch->isWatching());
        m_watchStatus->setToolTip(
            m_watch->isWatching()
                ? tr("Watching %1: each file that arrives is brought to its target as it arrives. The watch "
                     "ends with the window; to keep one without it, use the service: systemctl --user enable "
                     "--now evenloud-watch@NAME")
                      .arg(m_watch->folder())
                : QString());
    });
    connect(m_watch, &RQWatchController::watchingChanged, this, [this] {
        m_watchAction->setText(m_watch->isWatching() ? tr("Stop &Watching Folder") : tr("&Watch Folder…"));
    });
    connect(m_watch, &RQWatchController::jobStarted, this, [this] { updateGainFace(); });
    connect(m_watch, &RQWatchController::lost, this,
            [this](const QString &reason) { alert(tr("The watch has stopped"), reason); });
}

void AppDelegate::watchFolder()
{
    if (m_watch->isWatching()) {
        m_watch->stop();
        return;
    }
    if (m_dialog)
        return;
    auto *dialog = new QFileDialog(m_window);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setWindowTitle(tr("Watch Folder"));
    dialog->setFileMode(QFileDialog::Directory);
    dialog->setOption(QFileDialog::ShowDirsOnly, true);
    dialog->setAcceptMode(QFileDialog::AcceptOpen);
    connect(dialog, &QDialog::finished, this, [this, dialog](int result) {
        m_dialog = nullptr;
        const QStringList chosen = dialog->selectedFiles();
        if (result != QDialog::Accepted || chosen.isEmpty())
            return;
        if (const VXResult<> started = m_watch->start(chosen.first()); !started)
            alert(tr("Cannot watch %1").arg(chosen.first()), started.reason());
    });
    m_dialog = dialog;
    dialog->setWindowModality(Qt::WindowModal);
    dialog->open();
}

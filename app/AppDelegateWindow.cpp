#include "app/AppDelegate.h"

#include "app/RQAudioGainRows.h"
#include "app/RQAppSettings.h"
#include "app/RQImportController.h"
#include "app/RQSettingsController.h"
#include "views/RQBatchProgressView.h"
#include "views/RQPopupMenuWndCtrl.h"
#include "views/RQTableCellView.h"

#include "ui_MainWindow.h"

#include <QAction>

// The window's controls and the controllers behind them, wired once.
void AppDelegate::connectWindow()
{
    connectList();
    connectImport();
    connectGain();
    connectOutputFolder();
    connectMenus();
    connectSettingsEditors();
    connectAudition();
    connectWatch();
    connectReport();
    m_window->installEventFilter(this);
}

void AppDelegate::connectList()
{
    Ui::MainWindow &ui = *m_ui;
    QListView *list = ui.tableView;
    list->setModel(m_audioGains);
    m_cellView = new RQTableCellView(list);
    list->setItemDelegate(m_cellView);
    connect(m_cellView, &RQTableCellView::targetLoudnessClicked, this, &AppDelegate::popupTargetLoudnessAdjustMenu);
    connect(list->selectionModel(), &QItemSelectionModel::selectionChanged, this,
            &AppDelegate::tableViewSelectionDidChange);
    for (auto signal : {&QAbstractItemModel::rowsInserted, &QAbstractItemModel::rowsRemoved})
        connect(m_audioGains, signal, this, [this] { updateDerivedFlags(); });
    connect(m_audioGains, &QAbstractItemModel::modelReset, this, [this] { updateDerivedFlags(); });
    connect(this, &AppDelegate::canRemoveChanged, this,
            [this] { m_ui->actionRemoveSelected->setEnabled(m_canRemove); });
    ui.actionRemoveSelected->setEnabled(false);

    // The guide stands in for the empty list; drops must still reach the list.
    ui.guideView->setAttribute(Qt::WA_TransparentForMouseEvents);
    connect(m_audioGains, &VXAudioGainList::countChanged, this, [this] {
        m_ui->guideView->setListEmpty(m_audioGains->count() == 0);
        updateLoudnessPanel();
    });

    // The picture has nothing to draw over an empty list; the menu keeps
    // what the user chose, and only a choice of theirs is remembered.
    ui.actionShowLoudness->setChecked(RQAppSettings::showLoudnessPicture());
    connect(ui.actionShowLoudness, &QAction::triggered, this, &RQAppSettings::setShowLoudnessPicture);
    connect(ui.actionShowLoudness, &QAction::toggled, this, [this] { updateLoudnessPanel(); });
    updateLoudnessPanel();
    connect(list->selectionModel(), &QItemSelectionModel::currentChanged, this, [this] { updateLoudnessView(); });
    connect(m_audioGains, &QAbstractItemModel::dataChanged, this,
            [this](const QModelIndex &from, const QModelIndex &to, const QList<int> &roles) {
                // Progress ticks change neither the figures nor the target.
                if (!roles.isEmpty() && !roles.contains(Qt::ToolTipRole)
                    && !roles.contains(VXAudioGainList::TargetLoudnessRole))
                    return;
                const int shown = shownRow();
                if (shown >= from.row() && shown <= to.row())
                    updateLoudnessView();
            });
    connect(RQPopupMenuWndCtrl::sharePopupMenuWndCtrl(), &RQPopupMenuWndCtrl::targetLoudnessChosen, this,
            &AppDelegate::targetLoudnessChanged);
}

void AppDelegate::connectImport()
{
    Ui::MainWindow &ui = *m_ui;
    ui.importPrgView->hide();
    connect(ui.importPrgView, &RQImportPrgView::cancelRequested, this, &AppDelegate::cancelImport);
    connect(m_import, &RQImportController::allowedImportChanged, this, [this] {
        m_ui->importPrgView->setBusy(!m_import->allowedImport());
        emit allowedImportChanged();
        updateDerivedFlags();
    });
    connect(m_import, &RQImportController::importingFileNameChanged, this, [this] {
        m_ui->importPrgView->setImportingFileName(m_import->importingFileName());
        emit importingFileNameChanged();
    });
    connect(m_import, &RQImportController::importFinished, this, &AppDelegate::importFinished);
    connect(m_import, &RQImportController::alertRequested, this, &AppDelegate::alert);
    connect(m_import, &RQImportController::measurementKept, this,
            [this](const VXAudioGain *item, const VXLoudness &loudness) { rows()->setMeasured(item, loudness, false); });
    // Clearing during an import would race the files still arriving.
    connect(this, &AppDelegate::allowedImportChanged, this,
            [this] { m_ui->actionClearList->setEnabled(allowedImport()); });
}

void AppDelegate::connectGain()
{
    Ui::MainWindow &ui = *m_ui;
    connect(ui.btnGain, &QPushButton::clicked, this, &AppDelegate::gainAudioAction);
    connect(this, &AppDelegate::allowGainChanged, this, [this] { m_ui->btnGain->setEnabled(m_allowGain); });
    ui.btnGain->setEnabled(false);
    connect(m_batch, &RQBatchController::faceChanged, this, &AppDelegate::paintGainFace);
    connect(m_batch, &RQBatchController::jobEnded, this, &AppDelegate::jobEnded);
    connect(m_batch, &RQBatchController::progressChanged, this, [this] {
        RQBatchProgressView *view = m_ui->batchProgressView;
        view->setProgress(m_batch->filesDone(), m_batch->filesTotal(), m_batch->fraction(), m_batch->secondsLeft());
        view->setVisible(m_batch->batchRunning());
    });

    // Window-wide keys with no menu entry: the button's own shortcut would
    // be reset each time its face changes.
    ui.actionGain->setShortcuts({QKeySequence(Qt::CTRL | Qt::Key_Return), QKeySequence(Qt::CTRL | Qt::Key_Enter)});
    connect(ui.actionGain, &QAction::triggered, this, [this] {
        if (m_ui->btnGain->isEnabled())
            gainAudioAction();
    });
    connect(ui.actionCancelSelected, &QAction::triggered, this, &AppDelegate::cancelSelectedJobs);
    m_window->addActions({ui.actionGain, ui.actionCancelSelected});
}

void AppDelegate::connectOutputFolder()
{
    Ui::MainWindow &ui = *m_ui;
    connect(ui.btnChooseFolder, &QToolButton::clicked, this, &AppDelegate::selectOutFolder);
    connect(ui.btnActiveFolder, &QToolButton::clicked, this, &AppDelegate::avtiveOutputPath);
    connect(ui.chkReplaceOriginalFile, &QCheckBox::toggled, this, [this](bool on) {
        setReplaceOriginalFile(on);
        chkReplaceOriginalFileChanged();
    });
    connect(m_output, &RQOutputFolderController::replaceOriginalFileChanged, this, [this] {
        m_ui->chkReplaceOriginalFile->setChecked(replaceOriginalFile());
        // Only replacing has an original whose time could be kept.
        m_ui->actionPreserveModificationTime->setEnabled(replaceOriginalFile());
        emit replaceOriginalFileChanged();
    });
    connect(m_output, &RQOutputFolderController::outFolderChanged, this, [this] {
        m_ui->txtFolder->setText(outFolder());
        m_ui->txtFolder->setCursorPosition(0);
        m_ui->txtFolder->setToolTip(outFolder());
        describeFolderField();
        emit outFolderChanged();
    });
    connect(m_output, &RQOutputFolderController::alertRequested, this, &AppDelegate::alert);
    ui.txtFolder->setPlaceholderText(tr("Please select a output folder"));
    describeFolderField();
}

void AppDelegate::updateLoudnessPanel()
{
    m_ui->loudnessView->setVisible(m_ui->actionShowLoudness->isChecked() && m_audioGains->count() > 0);
}

// A placeholder is not read out: an empty field would say nothing.
void AppDelegate::describeFolderField()
{
    m_ui->txtFolder->setAccessibleDescription(outFolder().isEmpty() ? tr("Please select a output folder")
                                                                    : tr("Where the results are written"));
}

void AppDelegate::connectMenus()
{
    Ui::MainWindow &ui = *m_ui;
    connect(ui.btnAddFiles, &QToolButton::clicked, this, &AppDelegate::selectAudioFiles);
    connect(ui.actionAddFiles, &QAction::triggered, this, &AppDelegate::selectAudioFiles);
    connect(ui.actionChooseOutputFolder, &QAction::triggered, this, &AppDelegate::selectOutFolder);
    connect(ui.actionQuit, &QAction::triggered, this, &AppDelegate::quitApplication);
    connect(ui.actionRemoveSelected, &QAction::triggered, this, &AppDelegate::removeSelected);
    connect(ui.actionClearList, &QAction::triggered, this, &AppDelegate::cleanGains);
    connect(ui.actionAbout, &QAction::triggered, this, &AppDelegate::showAbout);
    connect(ui.actionSelectAll, &QAction::triggered, ui.tableView, &QListView::selectAll);
    connect(ui.actionAnalyze, &QAction::triggered, this, &AppDelegate::analyzeSelected);
}

// The popup and the Edit menu's entries show the settings of the next Gain
// and write their changes to them.
void AppDelegate::connectSettingsEditors()
{
    Ui::MainWindow &ui = *m_ui;
    ui.actionPreserveModificationTime->setEnabled(replaceOriginalFile());
    m_settings->attachAction(ui.actionPreserveModificationTime, &VXJobSettings::preserveModificationTime);
    m_settings->attachAction(ui.actionTreatAsAlbums, &VXJobSettings::treatAsAlbums);
    m_settings->attachAction(ui.actionMeasureWithLoudnorm, &VXJobSettings::measureWithLoudnorm);
    m_settings->attachAction(ui.actionTagsOnly, &VXJobSettings::tagsOnly);
    m_settings->attachAction(ui.actionLossless, &VXJobSettings::lossless);
    m_settings->attachPopup(RQPopupMenuWndCtrl::sharePopupMenuWndCtrl());
    // The picture draws the ceiling.
    connect(m_settings, &RQSettingsController::settingsChanged, this, [this] { updateLoudnessView(); });
}

#include "app/AppDelegate.h"

#include "app/RQAccessibility.h"
#include "app/RQAppSettings.h"
#include "app/RQAudioGainRows.h"
#include "app/RQDesktopServices.h"
#include "app/RQPalette.h"
#include "engine/VXMainThread.h"
#include "views/RQPopupMenuWndCtrl.h"

#include "ui_MainWindow.h"

#include <QAction>
#include <QApplication>
#include <QCloseEvent>
#include <QDragMoveEvent>
#include <QDropEvent>
#include <QMessageBox>
#include <QScreen>
#include <QThread>

namespace {
// A job's last report can take a moment to be refused once hops stop; the
// whole quit must stay under two seconds.
constexpr int kJobDrainMsecs = 1500;
constexpr int kImportDrainMsecs = 300;
} // namespace

AppDelegate::AppDelegate(QObject *parent)
    : QObject(parent), m_ui(std::make_unique<Ui::MainWindow>()), m_audioGains(new RQAudioGainRows(this))
{
    m_window = new QMainWindow;
    m_window->setAttribute(Qt::WA_DeleteOnClose, false);
    m_ui->setupUi(m_window);
    RQAccessibility::attachPopup(m_window, RQPopupMenuWndCtrl::sharePopupMenuWndCtrl()->window());
    m_importPool.setMaxThreadCount(4);
    m_analysisPool.setMaxThreadCount(qMax(2, QThread::idealThreadCount()));
    m_alert = [this](const QString &message, const QString &informative) {
        QMessageBox box(m_window);
        box.setWindowModality(Qt::ApplicationModal);
        box.setIcon(QMessageBox::Warning);
        box.setText(message);
        box.setInformativeText(informative);
        box.setStandardButtons(QMessageBox::Ok);
        box.exec();
    };
    m_reveal = [this](const QString &folder) { revealFolder(folder); };
    m_notify = [](const QString &summary, const QString &body) { RQDesktopServices::notify(summary, body); };
    connectWindow();
}

AppDelegate::~AppDelegate()
{
    stopAllWork();
    // The window's teardown sends events; they must not reach a filter
    // that looks at half-destroyed widgets.
    m_ui->tableView->viewport()->removeEventFilter(this);
    m_window->removeEventFilter(this);
    // The row delegate filters the list's events too; it goes first.
    m_ui->tableView->setItemDelegate(nullptr);
    delete m_cellView;
    delete m_window.data();
}

QListView *AppDelegate::tableView() const { return m_ui->tableView; }
QPushButton *AppDelegate::btnGain() const { return m_ui->btnGain; }
QToolButton *AppDelegate::btnActiveFolder() const { return m_ui->btnActiveFolder; }
QCheckBox *AppDelegate::chkReplaceOriginalFile() const { return m_ui->chkReplaceOriginalFile; }
QLineEdit *AppDelegate::txtFolder() const { return m_ui->txtFolder; }
QProgressBar *AppDelegate::importPI() const { return m_ui->importPI; }
QAction *AppDelegate::removeSelectedAction() const { return m_ui->actionRemoveSelected; }

void AppDelegate::connectWindow()
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

    // The guide stands in for the empty list; drops must still reach the list.
    ui.guideView->setAttribute(Qt::WA_TransparentForMouseEvents);
    connect(m_audioGains, &VXAudioGainList::countChanged, this,
            [this] { m_ui->guideView->setListEmpty(m_audioGains->count() == 0); });
    ui.importPrgView->hide();
    connect(ui.importPrgView, &RQImportPrgView::cancelRequested, this, &AppDelegate::cancelImport);

    connect(ui.btnGain, &QPushButton::clicked, this, &AppDelegate::gainAudioAction);
    connect(ui.btnAddFiles, &QToolButton::clicked, this, &AppDelegate::selectAudioFiles);
    connect(ui.btnChooseFolder, &QToolButton::clicked, this, &AppDelegate::selectOutFolder);
    connect(ui.btnActiveFolder, &QToolButton::clicked, this, &AppDelegate::avtiveOutputPath);
    connect(ui.chkReplaceOriginalFile, &QCheckBox::toggled, this, [this](bool on) {
        setReplaceOriginalFile(on);
        chkReplaceOriginalFileChanged();
    });
    connect(this, &AppDelegate::replaceOriginalFileChanged, this,
            [this] { m_ui->chkReplaceOriginalFile->setChecked(m_replaceOriginalFile); });
    connect(this, &AppDelegate::outFolderChanged, this, [this] {
        m_ui->txtFolder->setText(m_outFolder);
        m_ui->txtFolder->setCursorPosition(0);
        m_ui->txtFolder->setToolTip(m_outFolder);
    });
    ui.txtFolder->setPlaceholderText(tr("Please select a output folder"));
    connect(this, &AppDelegate::importingFileNameChanged, this,
            [this] { m_ui->importPrgView->setImportingFileName(m_importingFileName); });

    connect(this, &AppDelegate::allowGainChanged, this, [this] { m_ui->btnGain->setEnabled(m_allowGain); });
    connect(this, &AppDelegate::canRemoveChanged, this,
            [this] { m_ui->actionRemoveSelected->setEnabled(m_canRemove); });
    // Clearing during an import would race the files still arriving.
    connect(this, &AppDelegate::allowedImportChanged, this,
            [this] { m_ui->actionClearList->setEnabled(m_allowedImport); });
    ui.btnGain->setEnabled(false);
    ui.actionRemoveSelected->setEnabled(false);

    connect(ui.actionAddFiles, &QAction::triggered, this, &AppDelegate::selectAudioFiles);
    connect(ui.actionChooseOutputFolder, &QAction::triggered, this, &AppDelegate::selectOutFolder);
    connect(ui.actionQuit, &QAction::triggered, this, &AppDelegate::quitApplication);
    connect(ui.actionRemoveSelected, &QAction::triggered, this, &AppDelegate::removeSelected);
    connect(ui.actionClearList, &QAction::triggered, this, &AppDelegate::cleanGains);
    connect(ui.actionAbout, &QAction::triggered, this, &AppDelegate::showAbout);
    connect(ui.actionSelectAll, &QAction::triggered, list, &QListView::selectAll);
    connect(ui.actionAnalyze, &QAction::triggered, this, &AppDelegate::analyzeSelected);
    connect(ui.actionShowLoudness, &QAction::toggled, ui.loudnessView, &QWidget::setVisible);
    connect(list->selectionModel(), &QItemSelectionModel::currentChanged, this, [this] { updateLoudnessView(); });
    connect(m_audioGains, &QAbstractItemModel::dataChanged, this, [this](const QModelIndex &, const QModelIndex &,
                                                                         const QList<int> &roles) {
        // Progress ticks change neither the figures nor the target.
        if (roles.isEmpty() || roles.contains(Qt::ToolTipRole) || roles.contains(VXAudioGainList::TargetLoudnessRole))
            updateLoudnessView();
    });
    connect(RQPopupMenuWndCtrl::sharePopupMenuWndCtrl(), &RQPopupMenuWndCtrl::truePeakCeilingChanged, this,
            [this] { updateLoudnessView(); });

    // Window-wide keys with no menu entry: the button's own shortcut would
    // be reset each time its face changes.
    ui.actionGain->setShortcuts({QKeySequence(Qt::CTRL | Qt::Key_Return), QKeySequence(Qt::CTRL | Qt::Key_Enter)});
    connect(ui.actionGain, &QAction::triggered, this, [this] {
        if (m_ui->btnGain->isEnabled())
            gainAudioAction();
    });
    connect(ui.actionCancelSelected, &QAction::triggered, this, &AppDelegate::cancelSelectedJobs);
    m_window->addActions({ui.actionGain, ui.actionCancelSelected});

    // Only replacing has an original whose time could be kept.
    ui.actionPreserveModificationTime->setChecked(RQAppSettings::preserveModificationTime());
    ui.actionPreserveModificationTime->setEnabled(m_replaceOriginalFile);
    connect(ui.actionPreserveModificationTime, &QAction::toggled, this,
            [](bool keep) { RQAppSettings::setPreserveModificationTime(keep); });
    connect(this, &AppDelegate::replaceOriginalFileChanged, this,
            [this] { m_ui->actionPreserveModificationTime->setEnabled(m_replaceOriginalFile); });

    ui.actionTreatAsAlbums->setChecked(RQAppSettings::treatAsAlbums());
    connect(ui.actionTreatAsAlbums, &QAction::toggled, this, [](bool on) { RQAppSettings::setTreatAsAlbums(on); });
    ui.actionMeasureWithLoudnorm->setChecked(RQAppSettings::measureWithLoudnorm());
    connect(ui.actionMeasureWithLoudnorm, &QAction::toggled, this,
            [](bool on) { RQAppSettings::setMeasureWithLoudnorm(on); });
    ui.actionTagsOnly->setChecked(RQAppSettings::tagsOnly());
    connect(ui.actionTagsOnly, &QAction::toggled, this, [](bool on) { RQAppSettings::setTagsOnly(on); });

    m_window->installEventFilter(this);
}

void AppDelegate::applicationDidFinishLaunching()
{
    VXAudioGain::cleanCache();
    setAllowedImport(true);
    RQPalette::setTitleColor(m_ui->chkReplaceOriginalFile, RQPalette::lightTitle());
    setTextFolderColor();
    setGainBtnFace(false);
    setOutFolder(userSelectOutFolder());
    m_ui->btnActiveFolder->setVisible(!finalOutFolder().isNull());
    fitWindowToScreen();

    QListView *list = m_ui->tableView;
    list->setAcceptDrops(true);
    list->viewport()->setAcceptDrops(true);
    list->viewport()->installEventFilter(this);

    connect(RQPopupMenuWndCtrl::sharePopupMenuWndCtrl(), &RQPopupMenuWndCtrl::targetLoudnessChosen, this,
            &AppDelegate::targetLoudnessChanged, Qt::UniqueConnection);
    // The popup shows the remembered settings of the next Gain and
    // remembers each change.
    RQPopupMenuWndCtrl *popup = RQPopupMenuWndCtrl::sharePopupMenuWndCtrl();
    popup->setTruePeakCeiling(RQAppSettings::truePeakCeiling());
    popup->setLimitPeaks(RQAppSettings::limitPeaks());
    popup->setDualMono(RQAppSettings::dualMono());
    popup->setSkipWithin(RQAppSettings::skipWithin());
    for (auto signal : {&RQPopupMenuWndCtrl::truePeakCeilingChanged, &RQPopupMenuWndCtrl::limitPeaksChanged,
                        &RQPopupMenuWndCtrl::dualMonoChanged, &RQPopupMenuWndCtrl::skipWithinChanged})
        connect(popup, signal, this, &AppDelegate::savePopupSettings, Qt::UniqueConnection);
    m_newRowTarget = RQAppSettings::targetLoudness();
    if (qApp)
        connect(qApp, &QCoreApplication::aboutToQuit, this, &AppDelegate::applicationWillTerminate,
                Qt::UniqueConnection);
    updateDerivedFlags();
}

void AppDelegate::savePopupSettings()
{
    const RQPopupMenuWndCtrl *popup = RQPopupMenuWndCtrl::sharePopupMenuWndCtrl();
    RQAppSettings::setTruePeakCeiling(popup->truePeakCeiling());
    RQAppSettings::setLimitPeaks(popup->limitPeaks());
    RQAppSettings::setDualMono(popup->dualMono());
    RQAppSettings::setSkipWithin(popup->skipWithin());
}

bool AppDelegate::windowShouldClose()
{
    bool busy = !m_allowedImport;
    for (const VXAudioGainPtr &item : m_audioGains->items())
        busy = busy || item->isRunning();
    if (!busy)
        return true;
    const QString message = m_allowedImport ? tr("It is gaining, please wait.") : tr("It is importing, please wait.");
    const QString informative = m_allowedImport
        ? tr("Can't close this window while is gaining. If you want to close, please cancel gain first.")
        : tr("Can't close this window while is importing. If you want to close, please cancel import first.");
    alert(message, informative);
    return false;
}

void AppDelegate::windowWillClose()
{
    if (QWidget *popup = RQPopupMenuWndCtrl::sharePopupMenuWndCtrl()->window())
        popup->hide();
}

bool AppDelegate::applicationWillTerminate()
{
    if (m_terminated)
        return true;
    m_terminated = true;
    cancelImport();
    // Hops are refused from here on, so neither a walk nor a job can wait
    // for this thread while it waits for them.
    VXMainThread::shutdown();
    m_analysisCancel->cancel();  // ends them while the jobs are waited for
    const bool jobsEnded = VXAudioGain::cancelAllJobsAndWait(kJobDrainMsecs);
    m_importPool.waitForDone(kImportDrainMsecs);
    m_analysisPool.waitForDone(kImportDrainMsecs);
    VXAudioGain::cleanCache();
    return jobsEnded;
}

void AppDelegate::stopAllWork()
{
    if (!m_terminated)
        applicationWillTerminate();
    // A walk may be probing one last file; hops are refused by now, so it
    // ends without this thread's help. It reads the list, which dies next.
    m_importPool.waitForDone();
    m_analysisPool.waitForDone();
}

void AppDelegate::quitApplication()
{
    // Quit is never refused: exit() does not ask the windows, and
    // applicationWillTerminate() cancels what still runs.
    m_quitting = true;
    QCoreApplication::exit(0);
}

void AppDelegate::fitWindowToScreen()
{
    const QScreen *screen = m_window->screen();
    if (!screen)
        return;
    // The frame is not known before the first show: leave room for a
    // title bar and borders of the usual size.
    const QSize room = screen->availableGeometry().size() - QSize(16, 48);
    if (room.isEmpty())
        return;
    m_window->setMinimumSize(m_window->minimumSize().boundedTo(room));
    m_window->resize(m_window->size().boundedTo(room));
}

void AppDelegate::bringWindowForward()
{
    m_window->setWindowState(m_window->windowState() & ~Qt::WindowMinimized);
    m_window->show();
    m_window->raise();
    m_window->activateWindow();
}

QString AppDelegate::productName() const
{
    return QCoreApplication::applicationName();
}

void AppDelegate::showAbout()
{
    QMessageBox::about(m_window, tr("About %1").arg(productName()),
                       tr("<b>%1</b> %2<p>Brings audio and video files to one loudness with FFmpeg's "
                          "EBU R128 loudnorm filter, in two passes.</p>")
                           .arg(productName(), QCoreApplication::applicationVersion()));
}

void AppDelegate::alert(const QString &message, const QString &informative)
{
    if (m_alert)
        m_alert(message, informative);
}

bool AppDelegate::eventFilter(QObject *watched, QEvent *event)
{
    if (watched == m_window && event->type() == QEvent::Close) {
        if (!m_quitting && !windowShouldClose()) {
            event->ignore();
            return true;
        }
        windowWillClose();
        return false;
    }
    if (watched == m_ui->tableView->viewport()) {
        switch (event->type()) {
        case QEvent::DragEnter:
        case QEvent::DragMove: {
            auto *drag = static_cast<QDragMoveEvent *>(event);
            if (dragOperationWithDragInfo(drag->mimeData()) == Qt::CopyAction) {
                drag->setDropAction(Qt::CopyAction);
                drag->accept();
            } else {
                drag->ignore();
            }
            return true;
        }
        case QEvent::Drop: {
            auto *drop = static_cast<QDropEvent *>(event);
            if (acceptDropWithDragInfo(drop->mimeData())) {
                drop->setDropAction(Qt::CopyAction);
                drop->accept();
            } else {
                drop->ignore();
            }
            return true;
        }
        default:
            break;
        }
    }
    return QObject::eventFilter(watched, event);
}

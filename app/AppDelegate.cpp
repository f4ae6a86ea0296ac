#include "app/AppDelegate.h"

#include "app/RQAccessibility.h"
#include "app/RQAudioGainRows.h"
#include "app/RQAuditionController.h"
#include "app/RQImportController.h"
#include "app/RQPalette.h"
#include "app/RQResumeOffer.h"
#include "app/RQReportExport.h"
#include "app/RQSettingsController.h"
#include "app/RQWatchController.h"
#include "engine/VXMainThread.h"
#include "views/RQPopupMenuWndCtrl.h"
#include "views/RQTableCellView.h"

#include "ui_MainWindow.h"

#include <QApplication>
#include <QCloseEvent>
#include <QDragMoveEvent>
#include <QDropEvent>
#include <QMessageBox>
#include <QScreen>
#include <QThread>
#include <QTimer>

namespace {
// A job's last report can take a moment to be refused once hops stop; the
// whole quit must stay under two seconds.
constexpr int kJobDrainMsecs = 1500;
constexpr int kImportDrainMsecs = 300;
} // namespace

AppDelegate::AppDelegate(QObject *parent)
    : QObject(parent), m_ui(std::make_unique<Ui::MainWindow>()), m_audioGains(new RQAudioGainRows(this)),
      m_settings(new RQSettingsController(this)), m_output(new RQOutputFolderController(this)),
      m_import(new RQImportController(m_audioGains, m_output, m_settings, this)),
      m_batch(new RQBatchController(this)),
      m_watch(new RQWatchController(m_audioGains, m_batch, m_output, m_settings, this)),
      m_report(new RQReportExport(rows(), m_settings, this))
{
    m_window = new QMainWindow;
    m_window->setAttribute(Qt::WA_DeleteOnClose, false);
    m_ui->setupUi(m_window);
    RQAccessibility::attachPopup(m_window, RQPopupMenuWndCtrl::sharePopupMenuWndCtrl()->window());
    m_batch->setWindow(m_window);
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
    connectWindow();
}

AppDelegate::~AppDelegate()
{
    stopAllWork();
    // The window's teardown sends events; they must not reach a filter
    // that looks at half-destroyed widgets.
    m_ui->tableView->viewport()->removeEventFilter(this);
    m_ui->centralWidget->removeEventFilter(this);
    m_ui->loudnessView->removeEventFilter(this);
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

void AppDelegate::applicationDidFinishLaunching()
{
    VXAudioGain::cleanCache();
    RQPalette::setTitleColor(m_ui->chkReplaceOriginalFile, RQPalette::lightTitle());
    setTextFolderColor();
    setGainBtnFace(false);
    paintGainFace();
    setOutFolder(userSelectOutFolder());
    m_ui->btnActiveFolder->setVisible(!finalOutFolder().isNull());
    fitWindowToScreen();

    QListView *list = m_ui->tableView;
    list->setAcceptDrops(true);
    // The whole window below the menu takes drops: the list, the picture
    // and, through the central widget, the bottom bar. The folder field
    // would take a dropped path as text, and it is read-only.
    m_ui->txtFolder->setAcceptDrops(false);
    for (QWidget *target : {list->viewport(), static_cast<QWidget *>(m_ui->loudnessView), m_ui->centralWidget}) {
        target->setAcceptDrops(true);
        target->installEventFilter(this);
    }

    if (qApp)
        connect(qApp, &QCoreApplication::aboutToQuit, this, &AppDelegate::applicationWillTerminate,
                Qt::UniqueConnection);
    updateDerivedFlags();
    // Once the window is up: a batch a dead run left unfinished.
    QTimer::singleShot(0, this, [this] { RQResumeOffer::offer(m_window, m_import, m_audioGains); });
}

bool AppDelegate::windowShouldClose()
{
    const bool importing = !allowedImport();
    bool busy = importing || m_batch->batchRunning();
    for (const VXAudioGainPtr &item : m_audioGains->items())
        busy = busy || item->isRunning();
    if (!busy)
        return true;
    const QString message = importing ? tr("It is importing, please wait.") : tr("It is gaining, please wait.");
    const QString informative = importing
        ? tr("Can't close this window while is importing. If you want to close, please cancel import first.")
        : tr("Can't close this window while is gaining. If you want to close, please cancel gain first.");
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
    m_watch->stop();  // the watch ends with the window
    cancelImport();
    m_audition->stop();
    // Hops are refused from here on, so neither a walk nor a job can wait
    // for this thread while it waits for them.
    VXMainThread::shutdown();
    m_analysisCancel->cancel();  // ends them while the jobs are waited for
    m_runningAnalyses -= int(m_analysisQueue.size());  // and starts no more
    m_analysisQueue.clear();
    const bool jobsEnded = VXAudioGain::cancelAllJobsAndWait(kJobDrainMsecs);
    m_import->waitForDone(kImportDrainMsecs);
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
    m_import->waitForDone();
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
    if (watched == m_ui->tableView->viewport() || watched == m_ui->loudnessView || watched == m_ui->centralWidget)
        return handleDrop(event) || QObject::eventFilter(watched, event);
    return QObject::eventFilter(watched, event);
}

bool AppDelegate::handleDrop(QEvent *event)
{
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
        return false;
    }
}

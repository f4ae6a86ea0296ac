#pragma once

#include <QDialog>
#include <QMainWindow>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QStringList>
#include <QThreadPool>
#include <QUrl>
#include <deque>
#include <functional>
#include <memory>

#include "app/RQBatchController.h"
#include "app/RQOutputFolderController.h"
#include "engine/VXAudioGain.h"
#include "engine/VXAudioGainList.h"
#include "engine/codec/VXCancel.h"
#include "engine/codec/VXError.h"

class QCheckBox;
class RQAudioGainRows;
class RQAuditionController;
class RQImportController;
class RQReportExport;
class RQSettingsController;
class RQTableCellView;
class RQWatchController;

class QLabel;
class QLineEdit;
class QListView;

class QMimeData;
class QProgressBar;
class QPushButton;
class QToolButton;
class QAction;
namespace Ui { class MainWindow; }

// The main window's owner: builds the window, wires its controls to the
// controllers behind it (settings, import, batch, output folder), keeps the
// list's selection and the analyses, and runs the application's lifecycle.
// The action methods are the window's commands; where a controller owns the
// work they hand it on. GUI thread only; background work reaches it through
// one blocking hop per report.
class AppDelegate : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool allowedImport READ allowedImport NOTIFY allowedImportChanged)
    Q_PROPERTY(bool allowGain READ allowGain NOTIFY allowGainChanged)
    Q_PROPERTY(bool canRemove READ canRemove NOTIFY canRemoveChanged)
    Q_PROPERTY(QList<VXAudioGainPtr> selectedAudioGains READ selectedAudioGains NOTIFY selectedAudioGainsChanged)
    Q_PROPERTY(QString importingFileName READ importingFileName NOTIFY importingFileNameChanged)
    Q_PROPERTY(QString outFolder READ outFolder WRITE setOutFolder NOTIFY outFolderChanged)
    Q_PROPERTY(QString finalOutFolder READ finalOutFolder NOTIFY outFolderChanged)
    Q_PROPERTY(bool replaceOriginalFile READ replaceOriginalFile WRITE setReplaceOriginalFile NOTIFY replaceOriginalFileChanged)
    Q_PROPERTY(QString productName READ productName CONSTANT)

public:
    // Shows a modal alert with one "OK" button and returns when it is dismissed.
    using AlertPresenter = std::function<void(const QString &message, const QString &informative)>;
    // Shows the folder in the file manager.
    using FolderRevealer = RQOutputFolderController::FolderRevealer;
    // Tells the desktop, outside the window, that a batch has ended.
    using Notifier = RQBatchController::Notifier;

    // A batch that ends after this long, with the window in the background,
    // is announced by a desktop notification.
    static constexpr qint64 kNotifyAfterMsecs = RQBatchController::kNotifyAfterMsecs;

    // Builds the main window from its interface file; start-up proper is
    // applicationDidFinishLaunching().
    explicit AppDelegate(QObject *parent = nullptr);
    ~AppDelegate() override;

    // Lifecycle.
    void applicationDidFinishLaunching();
    // Cancels the import and every job, waits for them (at most about two
    // seconds) and empties the temporary directory. True when no job is left.
    bool applicationWillTerminate();
    bool windowShouldClose();
    void windowWillClose();
    QString productName() const;

    // The controllers behind the window.
    RQSettingsController *settingsController() const { return m_settings; }
    RQImportController *importController() const { return m_import; }
    RQBatchController *batchController() const { return m_batch; }
    RQOutputFolderController *outputFolderController() const { return m_output; }
    RQAuditionController *auditionController() const { return m_audition; }
    RQWatchController *watchController() const { return m_watch; }
    RQReportExport *reportExport() const { return m_report; }

    // The list.
    VXAudioGainList *audioGains() const { return m_audioGains; }
    bool allowedImport() const;
    bool allowGain() const;
    bool canRemove() const;
    QList<VXAudioGainPtr> selectedAudioGains() const;
    QList<int> selectedRows() const;
    void removeGainsExceptProcessAtIndexes(const QList<int> &indexes);

    // Import.
    Qt::DropAction dragOperationWithDragInfo(const QMimeData *data) const;
    bool acceptDropWithDragInfo(const QMimeData *data);
    static QStringList pathsFromURLs(const QList<QUrl> &urls);
    // Files and folders from the command line or a later launch, added as
    // a drop of them would be. False when none is taken.
    bool openPaths(const QStringList &paths);
    void importAudioWithURLs(const QList<QUrl> &urls, bool recursive);
    void importAudioWithPaths(const QStringList &paths, bool recursive);
    bool audioFileImported(const QString &path) const;
    // Probes the file here (on the GUI thread) and appends it.
    void importSingleFile(const QString &path);
    // Appends an item probed elsewhere, or alerts why there is none.
    void importSingleFile(const QString &path, const VXAudioGainPtr &item, const VXError &error);
    QString importingFileName() const;
    // The open dialog's end: result 1 = confirmed with the chosen paths.
    void openPanelDidEnd(int result, const QStringList &paths);

    // Analysis: measures on a pool of its own, writes nothing; the figures
    // go to the rows' tooltips and the loudness picture.
    bool analyzing() const { return m_runningAnalyses > 0; }
    RQAudioGainRows *rows() const;
    // The report's dialog's end: writes the rows' figures to path (a web
    // page when its extension names no format).
    void exportReportTo(const QString &path);

    // Batch gain.
    void gainAudios();
    void updateGainFace();
    void setGainBtnFace(bool cancelFace);

    // Output folder.
    QString outFolder() const { return m_output->outFolder(); }
    void setOutFolder(const QString &folder);
    QString finalOutFolder() const;
    bool replaceOriginalFile() const { return m_output->replaceOriginalFile(); }
    void setReplaceOriginalFile(bool replace);
    void selectOutputFolder(bool startAfter);
    // The folder dialog's end: result 1 = confirmed with the chosen folder.
    void folderSheetDidEnd(int result, const QString &folder, bool startAfter);
    void saveUserSelectedURL(const QString &folder);
    QString userSelectOutFolder() const;
    void setTextFolderColor();

    // The window and its controls, for main() and for tests.
    QMainWindow *window() const { return m_window; }
    // Shown, raised and asked to take focus (a later launch handed files over).
    void bringWindowForward();
    QListView *tableView() const;
    QPushButton *btnGain() const;
    QToolButton *btnActiveFolder() const;
    QCheckBox *chkReplaceOriginalFile() const;
    QLineEdit *txtFolder() const;
    QProgressBar *importPI() const;
    QAction *removeSelectedAction() const;
    // File > Watch Folder..., and the watch's status in the bottom bar.
    QAction *watchFolderAction() const { return m_watchAction; }
    QLabel *watchStatusLabel() const { return m_watchStatus; }
    // The open or folder dialog while it is shown.
    QDialog *currentDialog() const { return m_dialog; }

    // Seams: modal alerts and the file manager are replaced in tests.
    void setAlertPresenter(AlertPresenter presenter) { m_alert = std::move(presenter); }
    void setFolderRevealer(FolderRevealer revealer) { m_output->setFolderRevealer(std::move(revealer)); }
    void setNotifier(Notifier notifier) { m_batch->setNotifier(std::move(notifier)); }

public slots:
    // User commands.
    void removeSelected();
    void cleanGains();
    void selectAudioFiles();
    void cancelImport();
    void gainAudioAction();
    // Cancels the running jobs among the selected items (all items when
    // none is selected).
    void cancelSelectedJobs();
    // Measures the selected items (all items when none is selected) that
    // are not running.
    void analyzeSelected();
    void selectOutFolder();
    // Chooses a folder to watch, or stops the watch under way.
    void watchFolder();
    void avtiveOutputPath();
    void chkReplaceOriginalFileChanged();
    void popupTargetLoudnessAdjustMenu(int row, const QRect &anchor);
    // The popup's target was chosen: for the next rows, and for its row or all.
    void targetLoudnessChanged();
    void quitApplication();
    void showAbout();
    void exportReport();

signals:
    void allowedImportChanged();
    void allowGainChanged();
    void canRemoveChanged();
    void selectedAudioGainsChanged();
    void importingFileNameChanged();
    void outFolderChanged();
    void replaceOriginalFileChanged();
    // An import's walk has ended (after its last file or a cancel).
    void importFinished();
    // The last analysis under way has handed its figures over.
    void analysesFinished();

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    void connectWindow();
    void connectList();
    void connectImport();
    void connectGain();
    void connectOutputFolder();
    void connectMenus();
    void connectSettingsEditors();
    void connectAudition();
    // The row the picture shows and P plays: the current one when it is
    // selected, else the first selected.
    VXAudioGainPtr shownItem() const;
    void connectWatch();
    void connectReport();
    // Drops anywhere below the menu add files, as on the list.
    bool handleDrop(QEvent *event);
    // Shown as the user wants it, and only with rows to show.
    void updateLoudnessPanel();
    void describeFolderField();
    void tableViewSelectionDidChange();
    void updateDerivedFlags();
    void alert(const QString &message, const QString &informative);
    void stopAllWork();
    void paintGainFace();
    void fitWindowToScreen();
    void analyze(const VXAudioGainPtr &item, const QString &path, bool output);
    void startAnalyses();
    void startAnalysis(const std::weak_ptr<VXAudioGain> &item, const QString &path, bool output);
    void analysisEnded();
    void jobEnded(const VXAudioGainPtr &item);
    void analyzeResult(const VXAudioGainPtr &item);
    void updateLoudnessView();
    // The row the loudness picture shows, or -1.
    int shownRow() const;

    std::unique_ptr<Ui::MainWindow> m_ui;
    QPointer<QMainWindow> m_window;
    VXAudioGainList *m_audioGains = nullptr;
    RQTableCellView *m_cellView = nullptr;
    RQSettingsController *m_settings = nullptr;
    RQOutputFolderController *m_output = nullptr;
    RQImportController *m_import = nullptr;
    RQBatchController *m_batch = nullptr;
    RQAuditionController *m_audition = nullptr;
    RQWatchController *m_watch = nullptr;
    QAction *m_watchAction = nullptr;
    QLabel *m_watchStatus = nullptr;
    RQReportExport *m_report = nullptr;

    bool m_allowGain = false;
    bool m_canRemove = false;
    QThreadPool m_analysisPool;
    // Cancelled at shutdown: stops the measurements under way.
    std::shared_ptr<VXCancel> m_analysisCancel = std::make_shared<VXCancel>();
    // Queued and under way; analyzing() while not 0.
    int m_runningAnalyses = 0;
    struct PendingAnalysis {
        std::weak_ptr<VXAudioGain> item;
        QString path;
        bool output = false;
    };
    std::deque<PendingAnalysis> m_analysisQueue;
    int m_analysesStarted = 0;

    QPointer<QDialog> m_dialog;
    AlertPresenter m_alert;
    bool m_terminated = false;
    bool m_quitting = false;
};

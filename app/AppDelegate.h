#pragma once

#include <QDialog>
#include <QElapsedTimer>
#include <QMainWindow>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QStringList>
#include <QThreadPool>
#include <QUrl>
#include <atomic>
#include <vector>
#include <functional>
#include <memory>

#include "engine/VXAudioGain.h"
#include "engine/VXAudioGainList.h"
#include "engine/codec/VXCancel.h"
#include "engine/codec/VXError.h"
#include "views/RQTableCellView.h"

class QCheckBox;
class RQAudioGainRows;

class QLabel;
class QLineEdit;
class QListView;

class QMimeData;
class QProgressBar;
class QPushButton;
class QToolButton;
class QAction;
namespace Ui { class MainWindow; }

// The one controller of the desktop app: the main window, the list of items,
// importing, the batch of gain jobs and the output folder. GUI thread only;
// background work reaches it through one blocking hop per report.
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
    using FolderRevealer = std::function<void(const QString &folder)>;
    // Tells the desktop, outside the window, that a batch has ended.
    using Notifier = std::function<void(const QString &summary, const QString &body)>;

    // A batch that ends after this long, with the window in the background,
    // is announced by a desktop notification.
    static constexpr qint64 kNotifyAfterMsecs = 10000;

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

    // The list.
    VXAudioGainList *audioGains() const { return m_audioGains; }
    bool allowedImport() const { return m_allowedImport; }
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
    QString importingFileName() const { return m_importingFileName; }
    // The open dialog's end: result 1 = confirmed with the chosen paths.
    void openPanelDidEnd(int result, const QStringList &paths);

    // Analysis: measures on a pool of its own, writes nothing; the figures
    // go to the rows' tooltips and the loudness picture.
    bool analyzing() const { return m_runningAnalyses > 0; }
    RQAudioGainRows *rows() const;

    // Batch gain.
    void gainAudios();
    void updateGainFace();
    void setGainBtnFace(bool cancelFace);

    // Output folder.
    QString outFolder() const { return m_outFolder; }
    void setOutFolder(const QString &folder);
    QString finalOutFolder() const;
    bool replaceOriginalFile() const { return m_replaceOriginalFile; }
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
    // The open or folder dialog while it is shown.
    QDialog *currentDialog() const { return m_dialog; }

    // Seams: modal alerts and the file manager are replaced in tests.
    void setAlertPresenter(AlertPresenter presenter) { m_alert = std::move(presenter); }
    void setFolderRevealer(FolderRevealer revealer) { m_reveal = std::move(revealer); }
    void setNotifier(Notifier notifier) { m_notify = std::move(notifier); }

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
    void avtiveOutputPath();
    void chkReplaceOriginalFileChanged();
    void popupTargetLoudnessAdjustMenu(int row, const QRect &anchor);
    // The popup's target was chosen: for the next rows, and for its row or all.
    void targetLoudnessChanged();
    void quitApplication();
    void showAbout();

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
    void tableViewSelectionDidChange();
    void updateDerivedFlags();
    void setAllowedImport(bool allowed);
    void setImportingFileName(const QString &name);
    void importEnded();
    void showImportFailure(const QString &path, const VXError &error);
    void alert(const QString &message, const QString &informative);
    void revealFolder(const QString &folder);
    void stopAllWork();
    void savePopupSettings();
    void batchReported(qint32 state);
    void fitWindowToScreen();
    void analyze(const VXAudioGainPtr &item, const QString &path, bool output);
    void jobEnded(const std::weak_ptr<VXAudioGain> &item);
    void updateLoudnessView();

    std::unique_ptr<Ui::MainWindow> m_ui;
    QPointer<QMainWindow> m_window;
    VXAudioGainList *m_audioGains = nullptr;
    RQTableCellView *m_cellView = nullptr;

    bool m_allowedImport = true;
    bool m_allowGain = false;
    bool m_canRemove = false;
    QString m_importingFileName;
    // Read by the walks on pool threads; shared so a walk never touches
    // the controller itself, which may be gone before the walk notices.
    // The cancel flags of the imports under way (each walk holds its own).
    std::vector<std::weak_ptr<std::atomic<bool>>> m_importCancels;
    int m_runningImports = 0;
    QThreadPool m_importPool;
    QThreadPool m_analysisPool;
    // Cancelled at shutdown: stops the measurements under way.
    std::shared_ptr<VXCancel> m_analysisCancel = std::make_shared<VXCancel>();
    int m_runningAnalyses = 0;

    // The position last chosen in the popup, given to every new row.
    float m_newRowTarget = VXAudioGain::kDefaultTargetLoudness;
    QString m_outFolder;  // null: none chosen yet
    bool m_replaceOriginalFile = false;
    QPointer<QDialog> m_dialog;

    AlertPresenter m_alert;
    FolderRevealer m_reveal;
    Notifier m_notify;
    // The batch under way, for the launcher's progress and the notification
    // at its end.
    QList<VXAudioGainPtr> m_batch;
    QElapsedTimer m_batchClock;
    QElapsedTimer m_progressClock;
    bool m_terminated = false;
    bool m_quitting = false;
};

#pragma once

#include <QHash>
#include <QObject>
#include <QSet>
#include <QString>
#include <QThreadPool>
#include <memory>

#include "engine/VXAudioGain.h"
#include "engine/VXJobSettings.h"
#include "engine/codec/VXError.h"

class RQBatchController;
class RQOutputFolderController;
class RQSettingsController;
class VXAudioGainList;
class VXJournal;
class VXWatchFolder;

// File > Watch Folder...: the complete files that arrive in a folder become
// rows and start at once, into the output folder (or in place when
// replacing), with the settings the watch started with. Each file is done
// once: the watch keeps the same journal as the command line's watch of the
// same folders, so a file done by either is not done again, and the app and
// the service never watch the same pair at once. The watch ends with the
// window; the service (evenloud-watch@) keeps one without it. GUI thread
// only.
class RQWatchController : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool watching READ isWatching NOTIFY watchingChanged)
    Q_PROPERTY(QString status READ status NOTIFY statusChanged)
public:
    // The list, the batch, the folder and the settings outlive the controller.
    RQWatchController(VXAudioGainList *list, RQBatchController *batch, const RQOutputFolderController *output,
                      const RQSettingsController *settings, QObject *parent = nullptr);
    ~RQWatchController() override;

    // Watches folder from now on (a watch under way ends first); why not,
    // when it cannot.
    VXResult<> start(const QString &folder);
    void stop();
    bool isWatching() const;
    QString folder() const { return m_folder; }
    // "Watching NAME · 3 done · 1 failed"; empty when not watching.
    QString status() const;
    int doneCount() const { return m_done; }
    int failedCount() const { return m_failed; }

signals:
    void watchingChanged();
    void statusChanged();
    // A file's job has been started by the watch.
    void jobStarted();
    // The watch ended on its own (the folder went away).
    void lost(const QString &reason);

private:
    void fileReady(const QString &path);
    void probed(const QString &path, const VXAudioGainPtr &item, const VXError &error);
    void jobEnded(const VXAudioGainPtr &item);
    // The row showing path, or -1.
    int rowOf(const QString &path) const;

    VXAudioGainList *m_list;
    RQBatchController *m_batch;
    const RQOutputFolderController *m_output;
    const RQSettingsController *m_settings;
    std::unique_ptr<VXWatchFolder> m_watcher;
    std::shared_ptr<VXJournal> m_journal;
    QString m_folder;
    // What the watch's jobs get, fixed when it starts.
    VXJobSettings m_jobSettings;
    QString m_destination;  // empty: in place
    QSet<QString> m_underWay;  // probing or running
    QSet<QString> m_again;     // reported again while under way
    QHash<QString, VXFileId> m_failedAs;  // failures, as they were then
    int m_done = 0;
    int m_failed = 0;
    QThreadPool m_pool;
};

#pragma once

#include <QObject>
#include <QString>
#include <QStringList>
#include <QThreadPool>
#include <QUrl>
#include <atomic>
#include <memory>
#include <vector>

#include "engine/VXAudioGain.h"
#include "engine/codec/VXError.h"

class QMimeData;
class RQOutputFolderController;
class RQSettingsController;
class VXAudioGainList;

// Adding files to the list: drops, paths from the command line or the open
// dialog, walked and probed on a pool of its own, the files handed to the
// list on the GUI thread in walk order, a batch at a time (RQImportWalk).
// New rows take the output folder and the target of new rows as they are
// when the file arrives.
class RQImportController : public QObject {
    Q_OBJECT
public:
    // The list, the folder and the settings outlive the controller.
    RQImportController(VXAudioGainList *list, const RQOutputFolderController *output,
                       const RQSettingsController *settings, QObject *parent = nullptr);
    ~RQImportController() override;

    // False while an import runs.
    bool allowedImport() const { return m_runningImports == 0; }
    // The file the import has just added, or a word that it is under way.
    QString importingFileName() const { return m_importingFileName; }

    static QStringList pathsFromURLs(const QList<QUrl> &urls);
    Qt::DropAction dragOperationWithDragInfo(const QMimeData *data) const;
    bool acceptDropWithDragInfo(const QMimeData *data);
    bool openPaths(const QStringList &paths);
    void importAudioWithPaths(const QStringList &paths, bool recursive);
    bool audioFileImported(const QString &path) const;
    void importSingleFile(const QString &path);
    void importSingleFile(const QString &path, const VXAudioGainPtr &item, const VXError &error);
    void cancelImport();
    // Waits for the walks; msecs < 0 waits for all of them.
    void waitForDone(int msecs = -1);

signals:
    void allowedImportChanged();
    void importingFileNameChanged();
    // An import's walk has ended (after its last file or a cancel).
    void importFinished();
    // A file the codec refuses; shown before the walk goes on.
    void alertRequested(const QString &message, const QString &informative);
    // A file just handed to the list (or already in it) whose figures were
    // kept from an earlier measurement: no decoding was needed for them.
    void measurementKept(const VXAudioGain *item, const VXLoudness &loudness);

private:
    void importEnded();
    void showImportFailure(const QString &path, const VXError &error);
    void setImportingFileName(const QString &name);

    VXAudioGainList *m_list;
    const RQOutputFolderController *m_output;
    const RQSettingsController *m_settings;
    QString m_importingFileName;
    // Read by the walks on pool threads; shared so a walk never touches
    // the controller itself, which may be gone before the walk notices.
    // The cancel flags of the imports under way (each walk holds its own).
    std::vector<std::weak_ptr<std::atomic<bool>>> m_importCancels;
    int m_runningImports = 0;
    // The walks' probes, one per core whatever the number of imports. Not
    // Qt's global pool: Qt paints large areas on that pool's threads while
    // the window waits, and a probe holds its thread for the worker's
    // answer. Declared first, so the walks (which wait for their probes)
    // end before it goes.
    QThreadPool m_probePool;
    QThreadPool m_pool;
};

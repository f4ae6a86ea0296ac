#pragma once

// A run on a hot folder (--watch): the folder's files go to an open batch as
// they become complete, until a signal ends the run.

#include "cli/CliReport.h"
#include "engine/VXFileId.h"
#include "engine/codec/VXError.h"

#include <QHash>
#include <QObject>
#include <QSet>
#include <QString>
#include <memory>

class CliBatch;
struct CliRun;
class VXWatchFolder;

// Hands each complete file of the watched folder to the batch once: not
// again while it is under way, nor when the journal says it was done (a file
// replaced with new content since counts as new), nor a failure of this run
// that has not changed since. When a file ends, its original goes to the
// done folder (its result placed) or the failed folder (with the reason in
// NAME.txt beside it), when they are given.
class CliWatch : public QObject {
    Q_OBJECT
public:
    CliWatch(CliRun &run, CliBatch &batch, QObject *parent = nullptr);
    ~CliWatch() override;

    // Starts watching and hands over the files already there.
    VXResult<> start();
    void stop();
    // How many files were handed to the batch.
    qint64 taken() const { return m_taken; }

signals:
    // The watched folder went away; nothing more will come.
    void lost(const QString &reason);

private:
    void fileReady(const QString &path);
    void resultReady(CliFileResult &r);
    void moveToDone(CliFileResult &r);
    bool moveToFailed(CliFileResult &r);

    CliRun &m_run;
    CliBatch &m_batch;
    std::unique_ptr<VXWatchFolder> m_watcher;
    QSet<QString> m_underWay;
    QSet<QString> m_again;  // reported again while under way: looked at once it ends
    // Failures of this run left where they were, as they were then.
    QHash<QString, VXFileId> m_failed;
    qint64 m_taken = 0;
    qint64 m_doneEarlier = 0;
};

// The whole of a --watch run, from the journal to the report once a signal
// (or the loss of the folder) has ended it; the exit status.
int cliRunWatch(CliRun &run);

#pragma once

// What a run has finished, kept in a file as it goes, so that the same run
// started again after a kill at any moment skips what was done, finishes
// what was not, and never writes a result twice or leaves two results for
// one input.
//
// One JSON object a line, appended with one write() each, so a kill leaves
// at most a cut last line, which is ignored. Before a result is published
// under its final name, the name and the staged file's inode are recorded
// ("placing"); a rename keeps the inode, so a later run can tell whether that
// publish happened even when the kill came before "done" was written.

#include "engine/VXFileId.h"
#include "engine/codec/VXError.h"

#include <QHash>
#include <QJsonObject>
#include <QList>
#include <QMutex>
#include <QString>
#include <memory>

struct VXJobSettings;

class VXJournal {
public:
    // What a run does, as its journal tells one run's records from
    // another's: the same files with other settings are done again. mode:
    // "gain", "tags" or "analyze"; destination: the output folder, or empty
    // when results replace their inputs.
    static QString settingsKey(const VXJobSettings &settings, const QString &mode, const QString &destination);

    // Opens path for appending (creating it and its folder) and reads what
    // earlier runs recorded. settingsKey names what a run does (target,
    // ceiling, destination...): records of runs with another key do not
    // count. An error when the file cannot be read or written, or another
    // process has it open.
    static VXResult<std::shared_ptr<VXJournal>> open(const QString &path, const QString &settingsKey);
    ~VXJournal();

    // Whether a run with the same settings finished input, as input now is:
    // untouched since (an output elsewhere), or the very file that run put in
    // its place. An interrupted publish that did happen is recorded as done
    // now. Any thread.
    bool wasDone(const QString &input);
    // Just before a result is renamed to dest; staged is the file about to be
    // renamed. Synced to disk before it returns, as the rename will be.
    VXResult<> placing(const QString &input, const VXFileId &inputId, const QString &dest, const VXFileId &staged);
    // input has ended with a result kept (written, tagged, skipped,
    // measured); output is where it is (empty when nothing was written).
    void done(const QString &input, const VXFileId &inputId, const QString &output, const QString &result);
    // Everything written so far is on disk.
    void sync();
    // A record of the caller's own (its "e" other than the journal's), kept
    // with the journal and read back by notes(): what a batch held, say.
    void note(const QJsonObject &record);
    QList<QJsonObject> notes() const;

    QString path() const { return m_path; }
    // Files recorded as done with these settings.
    qsizetype doneCount() const;

    VXJournal(const VXJournal &) = delete;
    VXJournal &operator=(const VXJournal &) = delete;

private:
    struct Intent {
        QString dest;
        VXFileId staged;
        VXFileId input;
    };
    struct Entry {
        bool done = false;
        VXFileId input;   // before the run touched it
        VXFileId output;  // where the result was, as it was then
        QList<Intent> intents;
    };
    VXJournal(QString path, QString key, int fd);
    void read(const QByteArray &content);
    void append(const QByteArray &line);
    void doneLocked(const QString &input, const VXFileId &inputId, const QString &output, const QString &result);
    static QString keyOf(const QString &input);

    const QString m_path;
    const QString m_settingsKey;
    const int m_fd;
    mutable QMutex m_lock;
    QHash<QString, Entry> m_entries;  // by absolute input path
    QList<QJsonObject> m_notes;
};

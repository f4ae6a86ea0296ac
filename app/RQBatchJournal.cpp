#include "app/RQBatchJournal.h"

#include "engine/VXJournal.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>
#include <QSet>
#include <atomic>

namespace {

// Each journal is one batch's: one key for all.
const QString kKey = QStringLiteral("batch");

QJsonObject filesRecord(const QString &event, const QList<VXAudioGainPtr> &items)
{
    QJsonArray files;
    for (const VXAudioGainPtr &item : items)
        files.append(QJsonObject{{QStringLiteral("path"), item->inputFile()},
                                 {QStringLiteral("target"), double(item->targetLoudness())}});
    return {{QStringLiteral("e"), event}, {QStringLiteral("files"), files}};
}

} // namespace

QString RQBatchJournal::folder()
{
    QString state = qEnvironmentVariable("XDG_STATE_HOME");
    if (state.isEmpty() || QDir::isRelativePath(state))
        state = QDir::homePath() + QStringLiteral("/.local/state");
    return state + QStringLiteral("/evenloud/batches");
}

std::shared_ptr<VXJournal> RQBatchJournal::begin(const QList<VXAudioGainPtr> &items)
{
    // Two presses within a millisecond are two batches all the same.
    static std::atomic<int> serial{0};
    const QString name = QStringLiteral("%1-%2-%3.journal")
                             .arg(QDateTime::currentDateTimeUtc().toString(QStringLiteral("yyyyMMdd-HHmmsszzz")))
                             .arg(QCoreApplication::applicationPid())
                             .arg(serial++);
    VXResult<std::shared_ptr<VXJournal>> journal = VXJournal::open(folder() + QLatin1Char('/') + name, kKey);
    if (!journal)
        return nullptr;
    (*journal)->note(filesRecord(QStringLiteral("batch"), items));
    return *journal;
}

bool RQBatchJournal::isBatchJournal(const VXJournal &journal)
{
    return QFileInfo(journal.path()).absolutePath() == QFileInfo(folder()).absoluteFilePath();
}

void RQBatchJournal::add(VXJournal &journal, const QList<VXAudioGainPtr> &items)
{
    journal.note(filesRecord(QStringLiteral("add"), items));
}

void RQBatchJournal::finish(std::shared_ptr<VXJournal> journal)
{
    if (!journal)
        return;
    const QString path = journal->path();
    journal.reset();
    QFile::remove(path);
}

QList<RQBatchJournal::Interrupted> RQBatchJournal::takeInterrupted()
{
    QList<Interrupted> found;
    const QDir dir(folder());
    for (const QString &name : dir.entryList({QStringLiteral("*.journal")}, QDir::Files, QDir::Name)) {
        // Open only when its program is gone: a live one holds the lock.
        VXResult<std::shared_ptr<VXJournal>> journal = VXJournal::open(dir.filePath(name), kKey);
        if (!journal)
            continue;
        Interrupted batch;
        QSet<QString> seen;
        for (const QJsonObject &note : (*journal)->notes()) {
            for (const QJsonValue &file : note.value(QLatin1String("files")).toArray()) {
                const QString path = file[QLatin1String("path")].toString();
                if (path.isEmpty() || seen.contains(path))
                    continue;
                seen.insert(path);
                ++batch.total;
                if (QFile::exists(path) && !(*journal)->wasDone(path))
                    batch.undone.append({path, float(file[QLatin1String("target")].toDouble())});
            }
        }
        journal->reset();
        QFile::remove(dir.filePath(name));
        if (!batch.undone.isEmpty())
            found.append(batch);
    }
    return found;
}

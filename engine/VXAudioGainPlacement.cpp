// Where a finished temporary file goes: into the output folder under a free
// name, or in place of the input file.
#include "engine/VXAudioGain.h"
#include "engine/VXAudioGainShared.h"

#include "engine/VXJournal.h"
#include "engine/VXMainThread.h"
#include "engine/VXPlacement.h"
#include "engine/VXTempDir.h"
#include "engine/codec/VXLog.h"

#include <QDir>
#include <QFileInfo>

bool VXAudioGain::chooseTempOutFile()
{
    const QFileInfo name(outFileName());
    const QString path = VXTempDir::reserveFile(name.completeBaseName(), name.suffix());
    QMutexLocker locker(&m_lock);
    m_tempOutFile = path;
    return !path.isEmpty();
}

qint64 VXAudioGain::fail(const QString &reason)
{
    QMutexLocker locker(&m_lock);
    m_result.reason = reason;
    return VXGainFailed;
}

qint64 VXAudioGain::finishWithPlacement()
{
    ++vxjob::shared().placing;
    const bool placed = moveTempFileToFinalOut(tempOutFile());
    --vxjob::shared().placing;
    return placed ? VXGainSucceeded : VXGainFailed;
}

bool VXAudioGain::moveTempFileToFinalOut(const QString &tempPath)
{
    if (replaceOriginalFile()) {
        const VXPlacement::Result result =
            VXPlacement::replaceFile(tempPath, inputFile(), jobSettings().preserveModificationTime, journalHook());
        if (result) {
            QMutexLocker locker(&m_lock);
            if (!result->warning.isEmpty())
                m_result.warning = m_result.warning.isEmpty() ? result->warning
                                                              : m_result.warning + QStringLiteral("; ") + result->warning;
            return true;
        }
        if (result.error().code == VXPlacement::kBeforeRemoval)
            VXLog(QStringLiteral("Failed to replace original file.Can't remove original file(%1)").arg(result.reason()));
        else
            VXLog(QStringLiteral("Failed to move file to dest path(%1).").arg(result.reason()));
        fail(result.reason());
        return false;
    }

    const QString folder = outFolder();
    const QFileInfo name(outFileName());
    // A relative folder would land the file wherever the process happens to
    // be.
    const VXPlacement::Result result = folder.isEmpty() || QDir::isRelativePath(folder)
        ? VXPlacement::Result(VXError::because(QStringLiteral("No output folder")))
        : VXPlacement::placeInFolder(tempPath, folder, name.completeBaseName(), name.suffix(), journalHook());
    if (!result) {
        VXLog(QStringLiteral("Failed to move file to dest path(%1).").arg(result.reason()));
        fail(result.reason());
        return false;
    }
    setOutPathFileFromJob(result->path);
    return true;
}

void VXAudioGain::setJournal(std::shared_ptr<VXJournal> journal)
{
    QMutexLocker locker(&m_lock);
    m_journal = std::move(journal);
}

std::shared_ptr<VXJournal> VXAudioGain::journal() const
{
    QMutexLocker locker(&m_lock);
    return m_journal;
}

std::function<VXResult<>(const QString &, const VXFileId &)> VXAudioGain::journalHook() const
{
    QMutexLocker locker(&m_lock);
    if (!m_journal)
        return {};
    return [journal = m_journal, input = m_inputFile, inputId = m_inputId](const QString &dest, const VXFileId &staged) {
        return journal->placing(input, inputId, dest, staged);
    };
}

void VXAudioGain::journalDone()
{
    std::shared_ptr<VXJournal> journal;
    VXFileId inputId;
    QString kind;
    bool wrote = false;
    {
        QMutexLocker locker(&m_lock);
        journal = m_journal;
        inputId = m_inputId;
        wrote = !m_result.skipped;
        kind = m_result.skipped ? QStringLiteral("skipped") : m_result.tagged ? QStringLiteral("tagged") : m_result.normalization;
    }
    if (journal)
        journal->done(inputFile(), inputId, !wrote ? QString() : replaceOriginalFile() ? inputFile() : outPathFile(), kind);
}

void VXAudioGain::setOutPathFileFromJob(const QString &path)
{
    // Observers (the list model) expect changes on the main thread; at
    // shutdown, when no hop is possible, the value is still stored.
    if (!VXRunOnMainThread([&] { setOutPathFile(path); }))
        setOutPathFile(path);
}

void VXAudioGain::cleanCache() { VXTempDir::clean(); }

QString VXAudioGain::temporaryDirectory() { return VXTempDir::path(); }

#include "engine/VXAudioGain.h"

#include "engine/VXGainText.h"

#include "engine/codec/VXCodecConstants.h"
#include "engine/codec/VXDemuxerContext.h"

#include <QDir>
#include <QFileInfo>
#include <QThread>
#include <cmath>

VXAudioGain::VXAudioGain(const QString &path, const QString &outFolder)
    : m_inputFile(path), m_outFolder(outFolder), m_outFileName(QFileInfo(path).fileName())
{
}

VXAudioGain::~VXAudioGain() = default;

std::shared_ptr<VXAudioGain> VXAudioGain::initWithFile(const QString &path, const QString &outFolder,
                                                        VXError *error)
{
    auto context = VXDemuxerContext::initWithFilename(path, error);
    if (!context)
        return nullptr;

    // A QObject must die on the thread it lives on: the list's connections
    // and any queued signal for it belong there. A job's thread may hold the
    // last reference, so from there the deletion is posted back.
    std::shared_ptr<VXAudioGain> item(new VXAudioGain(path, outFolder), [](VXAudioGain *p) {
        if (QThread::currentThread() == p->thread())
            delete p;
        else
            p->deleteLater();
    });
    item->m_duration = context->audioStreamLength();
    if (auto picture = context->attachPicture())
        item->m_face = faceForPicture(picture->encoded());
    if (item->m_face.isNull())
        item->m_face = defaultArtwork();
    return item;
}

float VXAudioGain::targetLoudness() const { return m_targetLoudness.load(); }

void VXAudioGain::setTargetLoudness(float value)
{
    if (isRunning())
        return;
    // Written so that NaN fails the test too.
    if (!(value >= 0.0f && value <= 100.0f))
        return;
    if (m_targetLoudness.exchange(value) != value) {
        emit targetLoudnessChanged();
        emit loudnormValueChanged();
        emit formatTargetLoudnessChanged();
    }
    // Even an equal value makes a finished item idle, and startable again.
    setState(VXGainIdle);
}

QString VXAudioGain::inputFile() const
{
    QMutexLocker locker(&m_lock);
    return m_inputFile;
}

QString VXAudioGain::outFolder() const
{
    QMutexLocker locker(&m_lock);
    return m_outFolder;
}

void VXAudioGain::setOutFolder(const QString &folder)
{
    {
        QMutexLocker locker(&m_lock);
        // isNull matters: a null folder means "none", an empty one does not.
        if (m_outFolder == folder && m_outFolder.isNull() == folder.isNull())
            return;
        m_outFolder = folder;
    }
    emit outFolderChanged();
    emit outPathFileChanged();
}

QString VXAudioGain::outFileName() const
{
    QMutexLocker locker(&m_lock);
    return m_outFileName;
}

void VXAudioGain::setOutFileName(const QString &name)
{
    if (name.size() < 4)
        return;
    const QString inputExt = QFileInfo(inputFile()).suffix();
    const bool keepsExt = inputExt.isEmpty() || QFileInfo(name).suffix().compare(inputExt, Qt::CaseInsensitive) == 0;
    const QString stored = keepsExt ? name : name + QLatin1Char('.') + inputExt;
    {
        QMutexLocker locker(&m_lock);
        if (m_outFileName == stored)
            return;
        m_outFileName = stored;
    }
    emit outFileNameChanged();
    emit outPathFileChanged();
}

QString VXAudioGain::outPathFile() const
{
    QMutexLocker locker(&m_lock);
    if (m_outFolder.isNull())
        return {};
    return m_outFolder.isEmpty() ? m_outFileName : QDir(m_outFolder).filePath(m_outFileName);
}

void VXAudioGain::setOutPathFile(const QString &path)
{
    const QFileInfo info(path);
    setOutFolder(info.path());
    setOutFileName(info.fileName());
}

qint32 VXAudioGain::state() const { return m_state.load(); }

void VXAudioGain::setState(qint32 state)
{
    const qint32 old = m_state.exchange(state);
    if (old == state)
        return;
    emit stateChanged();
    emit stateImageChanged();
    emit outcomeTextChanged();
    const bool wasEditable = old == VXGainIdle || old == VXGainFinished;
    if (wasEditable != allowedTargetLoudnessEdit())
        emit allowedTargetLoudnessEditChanged();
}

qint64 VXAudioGain::retCode() const { return m_retCode.load(); }

void VXAudioGain::setRetCode(qint64 retCode)
{
    if (m_retCode.exchange(retCode) == retCode)
        return;
    emit retCodeChanged();
    emit stateImageChanged();
    if (state() == VXGainFinished)  // while running, retCode is only the progress
        emit outcomeTextChanged();
}

VXJobSettings VXAudioGain::jobSettings() const
{
    QMutexLocker locker(&m_lock);
    return m_settings;
}

void VXAudioGain::setJobSettings(const VXJobSettings &settings)
{
    const VXJobSettings checked = settings.sanitized();
    {
        QMutexLocker locker(&m_lock);
        if (m_settings == checked)
            return;
        m_settings = checked;
    }
    emit jobSettingsChanged();
}

VXGainResult VXAudioGain::gainResult() const
{
    QMutexLocker locker(&m_lock);
    return m_result;
}

QString VXAudioGain::outcomeText() const { return VXOutcomeText(state(), retCode(), gainResult()); }

quint64 VXAudioGain::duration() const { return m_duration; }

QImage VXAudioGain::face() const { return m_face; }

bool VXAudioGain::replaceOriginalFile() const { return m_replaceOriginalFile.load(); }

void VXAudioGain::setReplaceOriginalFile(bool replace)
{
    if (m_replaceOriginalFile.exchange(replace) != replace)
        emit replaceOriginalFileChanged();
}

QString VXAudioGain::inputFileName() const { return QFileInfo(inputFile()).fileName(); }

quint64 VXAudioGain::inputFileSize() const
{
    // A fresh QFileInfo: the size follows the file on disk at every read.
    const QFileInfo info(inputFile());
    return info.exists() ? quint64(info.size()) : 0;
}

QString VXAudioGain::formatInputFileSize() const { return formatSize(inputFileSize()); }

QString VXAudioGain::formatDuration() const { return formatDuration(m_duration); }

QString VXAudioGain::formatTargetLoudness() const
{
    return QString::asprintf("%.1f", double(targetLoudness()));
}

bool VXAudioGain::allowedTargetLoudnessEdit() const
{
    const qint32 s = state();
    return s == VXGainIdle || s == VXGainFinished;
}

float VXAudioGain::loudnormValue() const
{
    return VXLoudnessScale::lufsForPosition(targetLoudness());
}

QString VXAudioGain::formatSize(quint64 bytes) { return VXFormatSize(bytes); }

QString VXAudioGain::formatDuration(quint64 ticks) { return VXFormatDuration(ticks); }

QString VXAudioGain::tempOutFile() const
{
    QMutexLocker locker(&m_lock);
    return m_tempOutFile;
}

QVariantMap VXAudioGain::measurement() const
{
    QMutexLocker locker(&m_lock);
    return m_measurement;
}

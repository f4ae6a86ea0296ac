#pragma once

#include <QByteArray>
#include <QImage>
#include <QMutex>
#include <QObject>
#include <QString>
#include <atomic>
#include <cmath>
#include <functional>
#include <memory>
#include <optional>

#include "engine/VXFileId.h"
#include "engine/VXGainState.h"
#include "engine/VXJobSettings.h"
#include "engine/VXLoudnessScale.h"
#include "engine/codec/VXError.h"
#include "engine/VXReplayGain.h"
#include "engine/codec/VXCancel.h"
#include "engine/codec/VXLoudnessMeter.h"

class QThreadPool;
class VXAlbumBatch;
class VXJournal;
class VXTranscoding;

// The report callback of a job: (state, retCode), called on the main thread
// after the item's state and retCode were set.
using VXGainBlock = std::function<void(qint32 state, qint64 retCode)>;

// What the last job did: the gain, how it was applied, and the output as
// measured on the way to the encoder. NaN where not known.
struct VXGainResult {
    double gainDb = NAN;
    double outputI = NAN;
    double outputTp = NAN;
    double outputLra = NAN;
    // "linear", "peak-capped", "limited", "one-pass", "lossless" (Opus's
    // header gain) or "lossless-step" (whole steps of MP3's gain fields)
    QString normalization;
    QString reason;         // why the job failed; empty when it did not
    QString warning;        // succeeded, but something the user should know
    bool skipped = false;   // already within skipWithin of the target: nothing written
    int corrections = 0;    // passes run again for what a lossy encoder or a limiter lost
    double measuredI = NAN;  // when skipped: the level found (LUFS), the album's in album mode
    // Further audio streams (commentary, other languages), each normalised
    // on its own: input stream index, gain and kind.
    struct Stream {
        int index = -1;
        double gainDb = NAN;
        QString normalization;
    };
    QList<Stream> otherStreams;
    QString album;      // the album whose gain was applied or tagged; empty outside album mode
    bool tagged = false;  // tags only: the values written, the audio untouched
    VXReplayGain tags;
    // A lossless run: what the gain fields took, or why the file was
    // normalised the usual way instead.
    struct Lossless {
        bool asked = false;
        int steps = 0;             // lossless-step: 2^(1/4) steps added to every gain field
        double offsetDb = NAN;     // the gain applied less the gain planned: within 0.75 dB unless the ceiling held it
        long fields = 0;           // gain fields that carry audio (granules x channels)
        long clamped = 0;          // of those, held at a limit of the field
        QString fallback;          // why this file was normalised the usual way
        bool restored = false;     // an undo put the original fields back
    } lossless;
};

// A track in album mode: its own figures and its album's. The job then
// applies the album's gain, the same for every track, and skips its own
// first pass (the album measurement was it).
struct VXAlbumMember {
    QString name;      // the album, as shown
    VXLoudness track;  // integrated, true peak, range
    VXLoudness album;
};

// One audio item: an input file, where its result goes, its target loudness
// and the state of its two-pass job (VXGainState; a finished job's retCode
// is a VXGainEnd). The job itself is VXGainJob's, run on jobPool().
class VXAudioGain : public QObject, public std::enable_shared_from_this<VXAudioGain> {
    Q_OBJECT
    Q_PROPERTY(float targetLoudness READ targetLoudness WRITE setTargetLoudness NOTIFY targetLoudnessChanged)
    Q_PROPERTY(QString inputFile READ inputFile CONSTANT)
    Q_PROPERTY(QString outFolder READ outFolder WRITE setOutFolder NOTIFY outFolderChanged)
    Q_PROPERTY(QString outFileName READ outFileName WRITE setOutFileName NOTIFY outFileNameChanged)
    Q_PROPERTY(QString outPathFile READ outPathFile WRITE setOutPathFile NOTIFY outPathFileChanged)
    Q_PROPERTY(qint32 state READ state WRITE setState NOTIFY stateChanged)
    Q_PROPERTY(qint64 retCode READ retCode WRITE setRetCode NOTIFY retCodeChanged)
    Q_PROPERTY(quint64 duration READ duration CONSTANT)
    Q_PROPERTY(QImage face READ face CONSTANT)
    Q_PROPERTY(bool replaceOriginalFile READ replaceOriginalFile WRITE setReplaceOriginalFile NOTIFY replaceOriginalFileChanged)
    Q_PROPERTY(QString inputFileName READ inputFileName CONSTANT)
    Q_PROPERTY(quint64 inputFileSize READ inputFileSize)
    Q_PROPERTY(QString formatInputFileSize READ formatInputFileSize)
    Q_PROPERTY(QString formatDuration READ formatDuration CONSTANT)
    Q_PROPERTY(QString formatTargetLoudness READ formatTargetLoudness NOTIFY formatTargetLoudnessChanged)
    Q_PROPERTY(bool allowedTargetLoudnessEdit READ allowedTargetLoudnessEdit NOTIFY allowedTargetLoudnessEditChanged)
    Q_PROPERTY(float loudnormValue READ loudnormValue NOTIFY loudnormValueChanged)
    Q_PROPERTY(QImage stateImage READ stateImage NOTIFY stateImageChanged)
    // The outcome in words: "-14.0 LUFS · -2.0 dBTP · linear", the reason of
    // a failure, or empty while nothing has ended.
    Q_PROPERTY(QString outcomeText READ outcomeText NOTIFY outcomeTextChanged)

public:
    static constexpr float kDefaultTargetLoudness = VXLoudnessScale::kDefaultPosition;

    // Probes the file; nullptr (and the codec's error in *error) when it
    // cannot be opened. The item is destroyed on its own thread whichever
    // thread drops the last reference.
    static std::shared_ptr<VXAudioGain> initWithFile(const QString &path, const QString &outFolder,
                                                     VXError *error);
    ~VXAudioGain() override;

    float targetLoudness() const;
    void setTargetLoudness(float value);
    QString inputFile() const;
    QString outFolder() const;  // a null QString stands for "no folder"
    void setOutFolder(const QString &folder);
    QString outFileName() const;
    void setOutFileName(const QString &name);
    QString outPathFile() const;
    void setOutPathFile(const QString &path);
    qint32 state() const;
    void setState(qint32 state);
    qint64 retCode() const;
    void setRetCode(qint64 retCode);
    quint64 duration() const;
    QImage face() const;
    bool replaceOriginalFile() const;
    void setReplaceOriginalFile(bool replace);

    QString inputFileName() const;
    quint64 inputFileSize() const;
    QString formatInputFileSize() const;
    QString formatDuration() const;
    QString formatTargetLoudness() const;
    bool allowedTargetLoudnessEdit() const;
    float loudnormValue() const;
    bool isRunning() const { return state() == VXGainStarted || state() == VXGainRunning; }
    // How the next job measures, holds peaks, skips and places; its
    // targetLoudness is not used (the item's own is). Read when a job starts.
    VXJobSettings jobSettings() const;
    void setJobSettings(const VXJobSettings &settings);
    VXGainResult gainResult() const;
    QString outcomeText() const;
    // Set before the job starts; nullopt: the file is normalised on its own.
    void setAlbumMember(std::optional<VXAlbumMember> member);
    std::optional<VXAlbumMember> albumMember() const;
    // Set before the job starts; the job takes its album's figures from the
    // batch (measured by whichever track comes first). Null: no album.
    void setAlbumBatch(std::shared_ptr<VXAlbumBatch> batch);
    // Set before the job starts: the journal its result's publish and its
    // end go into, so that the run started again after a kill skips it.
    // Null: none.
    void setJournal(std::shared_ptr<VXJournal> journal);
    std::shared_ptr<VXJournal> journal() const;

    static QString formatSize(quint64 bytes);
    static QString formatDuration(quint64 ticks);

    // The job: returns at once; the work runs on jobPool(). Called on the
    // main thread, the item reports (1, 0) before returning, so a job that
    // waits for a free pool thread already counts as running and can be
    // cancelled.
    void gainWithBlock(VXGainBlock block);
    // Stops the running pass; a cancel between passes stops the job before
    // its next pass.
    void cancelGain();
    // A report of the running job, set on the item and handed to block on
    // the main thread; from any thread. Dropped once the application is
    // going away, which then cancels the job.
    void sendMessage(qint32 state, qint64 retCode, const VXGainBlock &block);
    QString tempOutFile() const;
    // The last job's pass-1 record ("input_i", "input_tp", ...); empty
    // before a job has measured, or when it fell back to one pass.
    QVariantMap measurement() const;

    // The pool every job runs on: idealThreadCount() threads, at least 2.
    static QThreadPool *jobPool();
    // For shutdown: releases every report waiting for the main thread (and
    // refuses later ones), cancels every running job and waits up to msecs
    // for the pool to drain, and beyond that for jobs still placing their
    // result. True when no job is left. Main thread only.
    static bool cancelAllJobsAndWait(int msecs);

    // Output placement.
    bool moveTempFileToFinalOut(const QString &tempPath);
    // Removes this process's private temporary directory with its content,
    // and those left behind by processes that have died.
    static void cleanCache();
    // This process's private temporary directory (mode 0700), created on demand.
    static QString temporaryDirectory();

    // State image: nothing, a progress disc, or the success/failure mark.
    QImage stateImage() const;
    // A new 32 x 32 point image (at devicePixelRatio, for HiDPI screens).
    static QImage makeImageWithPrg(qint64 progress, qreal devicePixelRatio = 2.0);
    // The marks of a finished job and the artwork of a file without cover.
    static QImage successImage();
    static QImage failureImage();
    static QImage defaultArtwork();
    // A row shows its cover art in 48 points, 96 pixels on a HiDPI screen:
    // larger covers are kept at this size on their longer side.
    static constexpr int kFacePixels = 96;
    // The cover for a file's encoded picture, at most kFacePixels on a side,
    // the same image for the same bytes while recently seen; null when it
    // does not decode. From any thread.
    static QImage faceForPicture(const QByteArray &encoded);

    // Test seam: when set, every job passes the captured pass-1 log through
    // it before looking for the measurement record.
    using LogHook = std::function<QByteArray(const QByteArray &log)>;
    static void setCapturedLogHookForTesting(LogHook hook);

signals:
    void targetLoudnessChanged();
    void outFolderChanged();
    void outFileNameChanged();
    void outPathFileChanged();
    void stateChanged();
    void retCodeChanged();
    void replaceOriginalFileChanged();
    void formatTargetLoudnessChanged();
    void allowedTargetLoudnessEditChanged();
    void loudnormValueChanged();
    void stateImageChanged();
    void jobSettingsChanged();
    void outcomeTextChanged();

private:
    friend class VXGainJob;  // the job runner works on the item's state
    VXAudioGain(const QString &path, const QString &outFolder);
    bool deliver(qint32 state, qint64 retCode, const VXGainBlock &block);
    void applyReport(qint32 state, qint64 retCode, const VXGainBlock &block);
    bool chooseTempOutFile();
    qint64 finishWithPlacement();
    qint64 fail(const QString &reason);
    // Album mode: the album's figures, from the batch unless set already.
    // An error whose code is VXGainCancelled: the measurement was cancelled.
    VXResult<> resolveAlbum();
    qint64 runTagsOnly();
    // The journal's hold on a publish, or nothing without a journal.
    std::function<VXResult<>(const QString &, const VXFileId &)> journalHook() const;
    // After a job that succeeded: its end into the journal.
    void journalDone();
    void setOutPathFileFromJob(const QString &path);

    mutable QMutex m_lock;  // guards the strings, m_tempOutFile and m_transCoding
    std::atomic<float> m_targetLoudness{kDefaultTargetLoudness};
    QString m_inputFile;
    QString m_outFolder;
    QString m_outFileName;
    std::atomic<qint32> m_state{0};
    std::atomic<qint64> m_retCode{0};
    QString m_tempOutFile;
    QVariantMap m_measurement;  // under m_lock
    VXGainResult m_result;      // under m_lock
    std::optional<VXAlbumMember> m_album;  // under m_lock
    std::shared_ptr<VXAlbumBatch> m_albumBatch;  // under m_lock
    std::shared_ptr<VXJournal> m_journal;        // under m_lock
    VXFileId m_inputId;  // the input as the job found it, under m_lock
    VXJobSettings m_settings;  // under m_lock
    std::shared_ptr<VXTranscoding> m_transCoding;
    // Set under m_lock, read there with m_transCoding; its stoppers reach
    // the measurements, which run without a transcoding.
    VXCancel m_cancel;
    quint64 m_duration = 0;
    QImage m_face;
    std::atomic<bool> m_replaceOriginalFile{false};
};

using VXAudioGainPtr = std::shared_ptr<VXAudioGain>;

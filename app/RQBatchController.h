#pragma once

#include <QElapsedTimer>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QString>
#include <functional>

#include "engine/VXAudioGain.h"
#include "engine/VXJobSettings.h"

class QWidget;
class VXJournal;

// The gain jobs of a press of Gain (and those added while it runs): starts
// them with a copy of the settings, follows their reports for the
// launcher's progress, announces the end of a long batch, and holds what
// the Gain button does next. GUI thread only.
class RQBatchController : public QObject {
    Q_OBJECT
    Q_PROPERTY(Face face READ face NOTIFY faceChanged)
public:
    // What a press of the Gain button does: start the chosen items, or
    // cancel those of them that run.
    enum Face { GainFace, CancelFace };
    Q_ENUM(Face)

    // Tells the desktop, outside the window, that a batch has ended.
    using Notifier = std::function<void(const QString &summary, const QString &body)>;

    // A batch that ends after this long, with the window in the background,
    // is announced by a desktop notification.
    static constexpr qint64 kNotifyAfterMsecs = 10000;

    explicit RQBatchController(QObject *parent = nullptr);
    ~RQBatchController() override;

    Face face() const { return m_face; }
    void setFace(Face face);

    // Not run yet, or cancelled: what a press of Gain starts.
    static bool isEligible(const VXAudioGain &item);
    // Starts the eligible items among the chosen ones, each with its own
    // copy of the settings (later edits apply to the next press only).
    // Results replace the originals (inPlace) or go to the folder; a kept
    // modification time needs an original to keep it from. True when one
    // started.
    bool start(const QList<VXAudioGainPtr> &chosen, const VXJobSettings &settings, const QString &folder,
               bool inPlace);

    void setNotifier(Notifier notifier) { m_notify = std::move(notifier); }
    // The window whose being in front means the end is seen there.
    void setWindow(QWidget *window) { m_window = window; }

signals:
    void faceChanged();
    // One item's job has ended (its last report); null when the item is gone.
    void jobEnded(const VXAudioGainPtr &item);

private:
    void batchReported(qint32 state);

    Face m_face = GainFace;
    Notifier m_notify;
    QPointer<QWidget> m_window;
    // The batch under way, for the launcher's progress and the notification
    // at its end.
    QList<VXAudioGainPtr> m_batch;
    QElapsedTimer m_batchClock;
    // What the batch has done, kept until it ends, for the next start should
    // this program die first.
    std::shared_ptr<VXJournal> m_journal;
    QElapsedTimer m_progressClock;
};

#pragma once

#include <QElapsedTimer>
#include <QHash>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QString>
#include <deque>
#include <functional>

#include "app/RQBatchEta.h"
#include "engine/VXAudioGain.h"
#include "engine/VXJobSettings.h"

class QWidget;
class VXJournal;

// The gain jobs of a press of Gain (and those added while it runs): starts
// them with a copy of the settings, follows their reports for the batch's
// progress (the bottom bar's, the launcher's), announces the end of a long
// batch, and holds what the Gain button does next. Each report updates the
// batch's tallies in constant time: a batch may hold ten thousand files.
// GUI thread only.
class RQBatchController : public QObject {
    Q_OBJECT
    Q_PROPERTY(Face face READ face NOTIFY faceChanged)
    Q_PROPERTY(bool batchRunning READ batchRunning NOTIFY progressChanged)
    Q_PROPERTY(int filesDone READ filesDone NOTIFY progressChanged)
    Q_PROPERTY(int filesTotal READ filesTotal NOTIFY progressChanged)
    Q_PROPERTY(double fraction READ fraction NOTIFY progressChanged)
    Q_PROPERTY(double secondsLeft READ secondsLeft NOTIFY progressChanged)
public:
    // What a press of the Gain button does: start the chosen items, or
    // cancel those of them that run.
    enum Face { GainFace, CancelFace };
    Q_ENUM(Face)

    // Tells the desktop, outside the window, that a batch has ended.
    using Notifier = std::function<void(const QString &summary, const QString &body)>;
    // Milliseconds on a steady clock.
    using Clock = std::function<qint64()>;

    // A batch that ends after this long, with the window in the background,
    // is announced by a desktop notification.
    static constexpr qint64 kNotifyAfterMsecs = 10000;
    // Progress of single files reaches the bar no more often than this.
    static constexpr qint64 kProgressEveryMsecs = 250;
    // Jobs started per turn of the event loop: a press over ten thousand
    // files starts them over a few dozen turns, the window answering between.
    static constexpr int kStartsPerTurn = 250;

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
    // Cancels the running jobs among items, and those of them still waiting
    // for their turn to start.
    void cancel(const QList<VXAudioGainPtr> &items);
    // Pressed Gain, its job not started yet: part of the batch, and not to
    // be removed from the list.
    bool isPending(const VXAudioGain *item) const;

    // The batch under way: its files that have ended and all of them, the
    // share of its audio done (0 to 1), and the wall seconds it has left,
    // negative while no estimate means anything yet.
    bool batchRunning() const { return m_running > 0; }
    int filesDone() const { return m_ended; }
    int filesTotal() const { return int(m_batch.size()); }
    double fraction() const;
    double secondsLeft() const { return m_eta.secondsLeft(); }

    void setNotifier(Notifier notifier) { m_notify = std::move(notifier); }
    // The window whose being in front means the end is seen there.
    void setWindow(QWidget *window) { m_window = window; }
    void setClock(Clock clock) { m_clock = std::move(clock); }

signals:
    void faceChanged();
    // One item's job has ended (its last report); null when the item is gone.
    void jobEnded(const VXAudioGainPtr &item);
    // The batch's progress moved, or the batch began or ended.
    void progressChanged();

private:
    struct Entry {
        VXAudioGainPtr item;  // held for the batch, as the launcher's count is
        double seconds = 0;   // of audio
        double share = 0;     // of it done
        qint64 end = 0;       // the job's end code, once ended
        bool ended = false;
        bool pending = false;  // its job not started yet
    };
    void join(const VXAudioGainPtr &item);
    void startPending();
    void leave(const VXAudioGain *item);
    void reported(const VXAudioGain *item, qint32 state, qint64 retCode);
    void tally(Entry &entry, int sign);
    void endBatch();
    qint64 now() const;

    Face m_face = GainFace;
    Notifier m_notify;
    Clock m_clock;
    QPointer<QWidget> m_window;
    QHash<const VXAudioGain *, Entry> m_batch;
    // In press order; an item may stand twice (pressed again while
    // waiting): the first to come up starts it.
    std::deque<VXAudioGainPtr> m_pending;
    bool m_startQueued = false;
    int m_running = 0;
    int m_ended = 0, m_succeeded = 0, m_failed = 0;
    double m_audioTotal = 0, m_audioDone = 0;
    RQBatchEta m_eta;
    qint64 m_batchStart = 0;
    qint64 m_lastProgress = -1;
    QElapsedTimer m_steady;
    // What the batch has done, kept until it ends, for the next start should
    // this program die first.
    std::shared_ptr<VXJournal> m_journal;
};

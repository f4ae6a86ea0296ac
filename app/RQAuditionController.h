#pragma once

#include "engine/VXAudioGainList.h"
#include "engine/VXAudition.h"
#include "engine/VXAuditionMix.h"

#include <QAudioDevice>
#include <QAudioFormat>
#include <QObject>
#include <QThreadPool>
#include <QTimer>
#include <functional>
#include <memory>
#include <vector>

class QAction;
class QAudioSink;
class QIODevice;
class QMediaDevices;

// Hearing a row before and after its Gain: P plays or pauses it, A and B
// switch between the original and the result on the same sample, and
// Match loudness plays the original at the result's loudness (on by
// default, remembered). Decoding runs in the worker's caged children, two
// streams side by side (VXAuditionStream, VXAuditionMix); Qt Multimedia's
// QAudioSink plays the mix. With no audio output the first try says so once,
// and playing is turned off; nothing waits on a device that is not there.
class RQAuditionController : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool available READ available NOTIFY availableChanged)
    Q_PROPERTY(bool playing READ playing NOTIFY playingChanged)
    Q_PROPERTY(bool resultSide READ resultSide WRITE setResultSide NOTIFY resultSideChanged)
    Q_PROPERTY(bool matchLoudness READ matchLoudness WRITE setMatchLoudness NOTIFY matchLoudnessChanged)
    Q_PROPERTY(double position READ position NOTIFY positionChanged)

public:
    // What the window knows: the row P acts on, and what a row tells of itself.
    struct Sources {
        std::function<VXAudioGainPtr()> currentItem;
        std::function<VXAuditionFacts(const VXAudioGain &)> facts;
    };
    // The device to play on; a null device is none.
    using OutputProbe = std::function<QAudioDevice()>;

    // The sink's buffer: the time a switch takes to be heard, and the
    // margin against a busy window thread.
    static constexpr int kSinkBufferMsecs = 80;

    RQAuditionController(Sources sources, QObject *parent = nullptr);
    ~RQAuditionController() override;

    // Test seam: the device to play on, asked for again now.
    void setOutputProbe(OutputProbe probe);

    // Play/Pause (P), Original (A), Result (B), Match Loudness: for the
    // menu, the window's keys and the picture's buttons.
    QList<QAction *> actions() const;
    QAction *playAction() const { return m_play; }

    bool available() const { return m_available; }
    bool playing() const { return m_playing; }
    bool resultSide() const { return m_side == VXAuditionMix::B; }
    bool matchLoudness() const { return m_match; }
    // Seconds heard of the item; NaN when none is.
    double position() const;
    // The item heard (paused included), or null.
    VXAudioGainPtr item() const { return m_item; }

public slots:
    // P: the current row plays or pauses; another row starts from its start.
    void togglePlay();
    // Heard from seconds on, the item becoming the one heard.
    void playFrom(const VXAudioGainPtr &item, double seconds);
    void stop();
    void setResultSide(bool b);
    void setMatchLoudness(bool on);
    // What is known of the item has changed (figures, target, result,
    // settings): its sides are planned again, and heard on from where they are.
    void itemChanged(const VXAudioGain *item);

signals:
    void availableChanged();
    void playingChanged();
    void resultSideChanged();
    void matchLoudnessChanged();
    void positionChanged();
    // Something the user should read, said once.
    void messageRequested(const QString &message, const QString &informative);
    // The item heard has no figures to plan B from: measuring it brings B.
    void measureRequested(const VXAudioGainPtr &item);

private:
    bool ensureOutput();
    bool startSink();
    void setPlaying(bool playing);
    void startPair(qint64 frame, VXAuditionMix::Start start);
    void streamNews();
    void feed();
    void sinkStateChanged();
    void updateActions();
    void refuseOutput(const QString &why);

    Sources m_sources;
    OutputProbe m_probe;
    QMediaDevices *m_devices = nullptr;
    bool m_available = false;
    bool m_told = false;  // the missing device has been reported
    QAction *m_play = nullptr;
    QAction *m_original = nullptr;
    QAction *m_result = nullptr;
    QAction *m_matchAction = nullptr;

    VXAudioGainPtr m_item;
    VXAudition m_audition;
    VXAuditionMix::Side m_side = VXAuditionMix::A;
    bool m_match = true;
    bool m_playing = false;
    double m_held = NAN;  // the position where it was paused
    QString m_failureTold;  // the last failure reported, said once

    QAudioFormat m_format;
    QAudioSink *m_sink = nullptr;
    QIODevice *m_output = nullptr;  // the sink's, where the mix is written
    std::unique_ptr<VXAuditionMix> m_mix;
    std::vector<float> m_buffer;
    QTimer m_feed;  // tops the sink up while playing
    QTimer m_tick;  // moves the playhead while playing
    QThreadPool m_pool;  // the streams' decoding, one thread each
};

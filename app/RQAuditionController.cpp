#include "app/RQAuditionController.h"

#include "app/RQAppSettings.h"

#include <QAction>
#include <QActionGroup>
#include <QAudioSink>
#include <QFileInfo>
#include <QMediaDevices>
#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

namespace {

// Each stream decodes this far ahead: room for a busy moment, and a bound
// on what a paused one holds (about 0.8 MB at 48 kHz).
constexpr double kAheadSeconds = 2.0;
// A pair per item heard, one taking over, and the ones ending.
constexpr int kStreamThreads = 8;
constexpr int kTickMsecs = 40;
// The sink is topped up this often: a quarter of its buffer.
constexpr int kFeedMsecs = 20;

} // namespace

RQAuditionController::RQAuditionController(Sources sources, QObject *parent)
    : QObject(parent), m_sources(std::move(sources)), m_match(RQAppSettings::matchLoudness())
{
    m_pool.setMaxThreadCount(kStreamThreads);
    m_play = new QAction(tr("Play"), this);
    m_play->setShortcut(QKeySequence(Qt::Key_P));
    m_original = new QAction(tr("Original (A)"), this);
    m_original->setIconText(QStringLiteral("A"));
    m_original->setShortcut(QKeySequence(Qt::Key_A));
    m_original->setToolTip(tr("Hear the original (A)"));
    m_result = new QAction(tr("Result (B)"), this);
    m_result->setIconText(QStringLiteral("B"));
    m_result->setShortcut(QKeySequence(Qt::Key_B));
    m_result->setToolTip(tr("Hear the result as it will sound (B): before a Gain, the planned gain, ceiling or "
                            "limiter applied live; after it, the written file"));
    for (QAction *side : {m_original, m_result})
        side->setCheckable(true);
    auto *sides = new QActionGroup(this);
    sides->addAction(m_original);
    sides->addAction(m_result);
    m_matchAction = new QAction(tr("Match Loudness"), this);
    m_matchAction->setShortcut(QKeySequence(Qt::Key_M));
    m_matchAction->setIconText(QStringLiteral("A=B"));
    m_matchAction->setCheckable(true);
    m_matchAction->setChecked(m_match);
    m_matchAction->setToolTip(tr("Play the original at the result's loudness, so that only what the processing "
                                 "changes is heard; off, the change of level is heard too"));
    connect(m_play, &QAction::triggered, this, &RQAuditionController::togglePlay);
    connect(m_original, &QAction::triggered, this, [this] { setResultSide(false); });
    connect(m_result, &QAction::triggered, this, [this] { setResultSide(true); });
    connect(m_matchAction, &QAction::toggled, this, &RQAuditionController::setMatchLoudness);
    m_tick.setInterval(kTickMsecs);
    connect(&m_tick, &QTimer::timeout, this, &RQAuditionController::positionChanged);
    m_feed.setInterval(kFeedMsecs);
    m_feed.setTimerType(Qt::PreciseTimer);
    connect(&m_feed, &QTimer::timeout, this, &RQAuditionController::feed);

    m_devices = new QMediaDevices(this);
    connect(m_devices, &QMediaDevices::audioOutputsChanged, this, [this] { setOutputProbe(m_probe); });
    setOutputProbe([] { return QMediaDevices::defaultAudioOutput(); });
}

RQAuditionController::~RQAuditionController()
{
    // The streams' children are killed here; their threads end at once.
    stop();
    m_pool.waitForDone();
}

void RQAuditionController::setOutputProbe(OutputProbe probe)
{
    m_probe = std::move(probe);
    const bool available = !m_probe().isNull();
    if (available == m_available)
        return;
    if (!available)
        stop();
    m_available = available;
    // A device that comes back is announced again when it goes.
    m_told = m_told && !available;
    updateActions();
    emit availableChanged();
}

QList<QAction *> RQAuditionController::actions() const { return {m_play, m_original, m_result, m_matchAction}; }

double RQAuditionController::position() const
{
    if (!m_item || !m_mix)
        return NAN;
    // A suspended sink tells nothing of what it holds.
    if (!m_playing && std::isfinite(m_held))
        return m_held;
    qint64 frame = m_mix->position();
    // What the sink holds has not been heard yet.
    if (m_sink)
        frame -= (m_sink->bufferSize() - m_sink->bytesFree()) / std::max(m_format.bytesPerFrame(), 1);
    return double(std::max<qint64>(frame, 0)) / m_format.sampleRate();
}

void RQAuditionController::togglePlay()
{
    const VXAudioGainPtr item = m_sources.currentItem ? m_sources.currentItem() : nullptr;
    if (item && item == m_item && m_sink)
        setPlaying(!m_playing);
    else if (item)
        playFrom(item, 0.0);
}

void RQAuditionController::playFrom(const VXAudioGainPtr &item, double seconds)
{
    if (!item || !ensureOutput())
        return;
    if (item != m_item)
        stop();
    m_item = item;
    m_audition = VXPlanAudition(m_sources.facts(*item));
    const bool fresh = !m_sink;
    if (fresh && !startSink())
        return;
    startPair(qint64(std::max(seconds, 0.0) * m_format.sampleRate()), VXAuditionMix::Jump);
    if (fresh) {
        m_output = m_sink->start();
        if (!m_output || m_sink->error() != QAudio::NoError) {
            refuseOutput(tr("The audio output could not be opened."));
            return;
        }
    }
    if (m_audition.result.isEmpty())
        emit measureRequested(item);
    setPlaying(true);
    updateActions();
    emit positionChanged();
}

void RQAuditionController::stop()
{
    m_tick.stop();
    m_feed.stop();
    QAudioSink *sink = std::exchange(m_sink, nullptr);
    m_output = nullptr;
    if (m_mix)
        m_mix->clear();  // the streams' children go now
    m_mix.reset();
    m_item.reset();
    m_audition = VXAudition();
    m_held = NAN;
    setPlaying(false);
    updateActions();
    emit positionChanged();
    // Last, with nothing left to play: Qt's PulseAudio sink runs the event
    // loop as it is destroyed.
    if (sink) {
        sink->disconnect(this);
        sink->stop();
        delete sink;
    }
}

void RQAuditionController::setResultSide(bool b)
{
    const VXAuditionMix::Side side = b ? VXAuditionMix::B : VXAuditionMix::A;
    if (side != m_side) {
        m_side = side;
        if (m_mix)
            m_mix->setSide(side);
        emit resultSideChanged();
    }
    // B waits for figures to be planned from; it comes in once they are.
    if (b && m_item && m_audition.result.isEmpty())
        emit measureRequested(m_item);
    updateActions();
}

void RQAuditionController::setMatchLoudness(bool on)
{
    if (on == m_match)
        return;
    m_match = on;
    RQAppSettings::setMatchLoudness(on);
    m_matchAction->setChecked(on);
    if (m_mix && m_item)
        startPair(m_mix->position(), VXAuditionMix::Follow);
    emit matchLoudnessChanged();
}

void RQAuditionController::itemChanged(const VXAudioGain *item)
{
    if (!m_item || item != m_item.get() || !m_mix)
        return;
    VXAudition planned = VXPlanAudition(m_sources.facts(*m_item));
    if (planned.soundsLike(m_audition))
        return;
    m_audition = std::move(planned);
    startPair(m_mix->position(), VXAuditionMix::Follow);
    updateActions();
}

bool RQAuditionController::ensureOutput()
{
    if (m_available)
        return true;
    refuseOutput(tr("No sound card or sound server was found. Connect or turn on an audio output, then press P "
                    "again."));
    return false;
}

// Float samples where the device takes them (PulseAudio does), else 16-bit.
bool RQAuditionController::startSink()
{
    const QAudioDevice device = m_probe();
    if (device.isNull()) {
        refuseOutput(tr("The audio output has gone."));
        return false;
    }
    QAudioFormat format;
    format.setChannelCount(2);
    format.setSampleRate(device.preferredFormat().sampleRate() > 0 ? device.preferredFormat().sampleRate() : 48000);
    format.setSampleFormat(QAudioFormat::Float);
    if (!device.isFormatSupported(format))
        format.setSampleFormat(QAudioFormat::Int16);
    m_format = format;
    m_mix = std::make_unique<VXAuditionMix>(format.channelCount());
    m_mix->setSide(m_side);
    m_sink = new QAudioSink(device, format, this);
    m_sink->setBufferSize(format.bytesForDuration(qint64(kSinkBufferMsecs) * 1000));
    connect(m_sink, &QAudioSink::stateChanged, this, &RQAuditionController::sinkStateChanged);
    return true;
}

// A and B from frame, side by side; A alone while nothing plans B, and the
// result alone where it has replaced the original.
void RQAuditionController::startPair(qint64 frame, VXAuditionMix::Start start)
{
    auto stream = [&](const QString &file, std::vector<std::shared_ptr<VXFilter>> filters) {
        vx::PlayRequest request;
        request.input = file;
        request.fromUs = frame * 1000000 / m_format.sampleRate();
        request.filters = std::move(filters);
        request.sampleRate = m_format.sampleRate();
        request.channels = m_format.channelCount();
        return std::make_unique<VXAuditionStream>(std::move(request), m_pool, kAheadSeconds, [this] {
            QMetaObject::invokeMethod(this, &RQAuditionController::streamNews, Qt::QueuedConnection);
        });
    };
    std::unique_ptr<VXAuditionStream> a, b;
    if (m_audition.original.isEmpty()) {
        a = stream(m_audition.result, {});
    } else {
        a = stream(m_audition.original, m_audition.originalFilters(m_match));
        if (!m_audition.result.isEmpty())
            b = stream(m_audition.result, m_audition.resultFilters);
    }
    m_mix->replace(std::move(a), std::move(b), frame, start, m_audition.level(m_match));
}

void RQAuditionController::setPlaying(bool playing)
{
    if (m_sink && playing != m_playing) {
        m_held = playing ? NAN : position();
        playing ? m_sink->resume() : m_sink->suspend();
    }
    playing ? m_tick.start() : m_tick.stop();
    playing ? m_feed.start() : m_feed.stop();
    if (playing == m_playing)
        return;
    m_playing = playing;
    updateActions();
    emit playingChanged();
}

// From the streams' threads, through the event loop: sound has come after
// none, a stream has ended or failed.
void RQAuditionController::streamNews()
{
    if (!m_mix || !m_item)
        return;
    const QString name = QFileInfo(m_item->inputFile()).fileName();
    const QString failedA = m_mix->failure(VXAuditionMix::A);
    if (!failedA.isEmpty()) {
        stop();
        emit messageRequested(tr("Cannot play %1").arg(name), failedA);
        return;
    }
    const QString failedB = m_mix->failure(VXAuditionMix::B);
    if (!failedB.isEmpty() && failedB != m_failureTold) {
        m_failureTold = failedB;
        setResultSide(false);
        emit messageRequested(tr("Cannot play the result of %1").arg(name), failedB);
    }
    feed();
}

// Tops the sink up to its buffer with what the mix has, which the sink
// takes whole (pushed, its whole free space at once: pulled, it would take
// whole periods only, and may wait for a last one that never fits). A mix at
// its end, once the sink has played all it held, is heard to its end.
void RQAuditionController::feed()
{
    if (!m_sink || !m_output || !m_mix || !m_playing)
        return;
    const int bytesPerFrame = m_format.bytesPerFrame();
    const qsizetype frames = m_sink->bytesFree() / bytesPerFrame;
    if (frames > 0) {
        const int channels = m_format.channelCount();
        m_buffer.resize(size_t(frames) * size_t(channels));
        const qsizetype mixed = m_mix->mix(m_buffer.data(), frames);
        if (m_format.sampleFormat() != QAudioFormat::Float) {
            // In place: each 16-bit sample lands before the float it comes from.
            auto *samples = reinterpret_cast<qint16 *>(m_buffer.data());
            for (size_t i = 0; i < size_t(mixed) * size_t(channels); ++i)
                samples[i] = qint16(std::lround(std::clamp(m_buffer[i], -1.0f, 1.0f) * 32767.0f));
        }
        if (mixed > 0)
            m_output->write(reinterpret_cast<const char *>(m_buffer.data()), mixed * bytesPerFrame);
    }
    if (m_mix->atEnd() && (m_sink->bytesFree() >= m_sink->bufferSize() || m_sink->state() == QAudio::IdleState))
        stop();
}

// The output failing (the sound server gone): said once, and playing is off.
// Through the event loop: the sink is not destroyed from its own signal.
void RQAuditionController::sinkStateChanged()
{
    if (m_sink && m_sink->state() == QAudio::StoppedState && m_sink->error() != QAudio::NoError
        && m_sink->error() != QAudio::UnderrunError) {
        QMetaObject::invokeMethod(
            this, [this] { refuseOutput(tr("The audio output stopped working.")); }, Qt::QueuedConnection);
    }
}

void RQAuditionController::refuseOutput(const QString &why)
{
    stop();
    const bool changed = m_available;
    const bool tell = !m_told;
    m_available = false;
    m_told = true;
    updateActions();
    if (changed)
        emit availableChanged();
    if (tell)
        emit messageRequested(tr("Playing is off: there is no audio output"), why);
}

void RQAuditionController::updateActions()
{
    if (!m_play)
        return;
    // Until the missing device has been told, P says why it cannot play.
    const bool enabled = m_available || !m_told;
    const bool replaced = m_item && m_audition.original.isEmpty();
    m_play->setEnabled(enabled);
    m_play->setText(m_playing ? tr("Pause") : tr("Play"));
    m_play->setIconText(m_playing ? QStringLiteral("\u275A\u275A") : QStringLiteral("\u25B6"));
    m_play->setToolTip(!m_available ? tr("No audio output device was found: playing is off")
                       : m_playing  ? tr("Pause (P)")
                                    : tr("Play the selected file (P)"));
    m_original->setEnabled(enabled && !replaced);
    m_result->setEnabled(enabled);
    m_matchAction->setEnabled(enabled && !replaced);
    m_original->setChecked(!replaced && m_side == VXAuditionMix::A);
    m_result->setChecked(replaced || m_side == VXAuditionMix::B);
}

// How quickly an audition is heard, through the worker as the app runs it:
// the time from asking for a 10-minute FLAC's sound (at its start and in its
// middle) to its first samples, and what an A/B switch costs. A switch in
// the mix is in step (A and B are decoded side by side) and lands on the
// next sample; the alternative, starting the other side again where the
// heard one is, is timed too. Where there is an audio output, the window's
// controller is timed from P to the first sound leaving the sink's buffer.
// Rough numbers on a busy machine; prints them, asserts nothing.
//   QT_QPA_PLATFORM=offscreen evenloud-audition-bench [FILE.flac]

#include "app/RQAuditionController.h"
#include "engine/VXAuditionMix.h"
#include "engine/VXAuditionStream.h"
#include "engine/codec/VXFilter.h"
#include "engine/codec/VXTranscode.h"
#include "engine/codec/VXWorker.h"

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QProcess>
#include <QTemporaryDir>
#include <QThread>
#include <QThreadPool>
#include <cstdio>

namespace {

constexpr int kRate = 48000;

QString makeFlac(const QString &dir)
{
    const QString path = QDir(dir).filePath(QStringLiteral("ten-minutes.flac"));
    const QStringList args{QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-f"), QStringLiteral("lavfi"),
                           QStringLiteral("-i"),
                           QStringLiteral("anoisesrc=c=pink:r=44100:a=0.2:d=600,aformat=channel_layouts=stereo"),
                           QStringLiteral("-c:a"), QStringLiteral("flac"), QStringLiteral("-y"), path};
    return QProcess::execute(QStringLiteral("ffmpeg"), args) == 0 ? path : QString();
}

std::unique_ptr<VXAuditionStream> stream(QThreadPool &pool, const QString &path, qint64 fromUs, double gain)
{
    vx::PlayRequest r;
    r.input = path;
    r.fromUs = fromUs;
    r.sampleRate = kRate;
    r.channels = 2;
    if (gain != 1.0) {
        auto volume = VXFilter::filterWithName(QStringLiteral("volume"));
        volume->setValue(QString::number(gain), QStringLiteral("volume"));
        r.filters.push_back(volume);
    }
    return std::make_unique<VXAuditionStream>(std::move(r), pool, 2.0);
}

// Milliseconds until pred holds, checked every 0.2 ms.
double msUntil(const std::function<bool()> &pred)
{
    QElapsedTimer timer;
    timer.start();
    while (!pred())
        QThread::usleep(200);
    return double(timer.nsecsElapsed()) / 1e6;
}

// P to the first sound heard: the position counts what has left the sink.
void timeThroughTheSink(const QString &flac)
{
    VXError error;
    const VXAudioGainPtr item = VXAudioGain::initWithFile(flac, QString(), &error);
    RQAuditionController::Sources sources;
    sources.currentItem = [item] { return item; };
    sources.facts = [](const VXAudioGain &it) {
        VXAuditionFacts facts;
        facts.input = it.inputFile();
        return facts;
    };
    RQAuditionController audition(sources);
    if (!item || !audition.available()) {
        std::printf("%-40s no audio output here\n", "P to the first sound heard");
        return;
    }
    QElapsedTimer timer;
    timer.start();
    audition.togglePlay();
    while (!(audition.position() > 0.0) && timer.elapsed() < 10000)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 1);
    std::printf("%-40s %7.1f ms (the sink's buffer: %d ms)\n", "P to the first sound heard",
                double(timer.nsecsElapsed()) / 1e6, RQAuditionController::kSinkBufferMsecs);
    audition.stop();
}

} // namespace

int main(int argc, char **argv)
{
    vx::configureProcess();
    QApplication app(argc, argv);
    if (!vx::useWorkerProcess())
        std::printf("no worker: decoding in this process\n");
    QTemporaryDir dir;
    const QString flac = argc > 1 ? QString::fromLocal8Bit(argv[1]) : makeFlac(dir.path());
    if (flac.isEmpty()) {
        std::fprintf(stderr, "cannot make the 10-minute FLAC (ffmpeg)\n");
        return 1;
    }
    QThreadPool pool;
    pool.setMaxThreadCount(8);
    // The app's worker is up long before a key is pressed (it starts with
    // the window, and the file was probed when added): so it is here.
    VXError error;
    if (!VXAudioGain::initWithFile(flac, QString(), &error))
        std::fprintf(stderr, "cannot probe %s: %s\n", qPrintable(flac), qPrintable(error.description));
    // The first play starts its children cold; later ones find two started ahead.
    for (const auto &[label, fromUs] : {std::pair{"first sound, first play from 0:00", qint64(0)},
                                        std::pair{"first sound from 0:00", qint64(0)},
                                        std::pair{"first sound from 5:00 (a seek)", qint64(300000000)},
                                        std::pair{"first sound from 9:59", qint64(599000000)}}) {
        QElapsedTimer timer;
        timer.start();
        auto a = stream(pool, flac, fromUs, 1.0);
        auto b = stream(pool, flac, fromUs, 0.5);
        const double ms = msUntil([&] { return a->available() > 0 && b->available() > 0; });
        std::printf("%-40s %7.1f ms (A and B both)\n", label, ms);
    }

    // A switch in step: the next mixed frame after setSide is already on
    // its way to B, at the same position.
    VXAuditionMix mix(2);
    mix.replace(stream(pool, flac, 60000000, 1.0), stream(pool, flac, 60000000, 0.5), 60LL * kRate);
    std::vector<float> buffer(size_t(kRate) * 2);
    msUntil([&] { return mix.mix(buffer.data(), 480) > 0; });
    const qint64 before = mix.position();
    mix.setSide(VXAuditionMix::B);
    QElapsedTimer timer;
    timer.start();
    const qsizetype got = mix.mix(buffer.data(), VXAuditionMix::kDefaultFadeFrames);
    std::printf("%-40s %7.3f ms to mix, %lld frames off the position, then a %.1f ms fade\n",
                "A/B switch in step", double(timer.nsecsElapsed()) / 1e6, (long long)(mix.position() - before - got),
                1000.0 * VXAuditionMix::kDefaultFadeFrames / kRate);

    // The alternative: B started again where the heard side has got to.
    const qint64 at = mix.position();
    timer.restart();
    mix.replace(stream(pool, flac, at * 1000000 / kRate, 1.0), stream(pool, flac, at * 1000000 / kRate, 0.25), at,
                VXAuditionMix::Follow);
    qsizetype consumed = 0;
    const double restart = msUntil([&] {
        // As a sound card would: about real time.
        const qint64 due = timer.nsecsElapsed() * kRate / 1000000000;
        if (consumed < due)
            consumed += mix.mix(buffer.data(), std::min<qsizetype>(due - consumed, kRate));
        return !mix.switching();
    });
    std::printf("%-40s %7.1f ms until the restarted pair is heard\n", "A/B switch by restarting", restart);
    mix.clear();
    pool.waitForDone();
    timeThroughTheSink(flac);
    vx::stopWorkerProcess();
    return 0;
}

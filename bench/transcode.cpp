// Measures the codec layer outside the test suite:
//   evenloud-transcode IN OUT             filterless transcoding
//   evenloud-transcode IN OUT --two-pass  loudnorm measure, then linear gain
//   ... --jobs N                          N of them at once (OUT gets a suffix)
// Prints the pass-1 records and the elapsed time; exit status 0 on success.
// Spawns no processes, so it also runs cleanly under ThreadSanitizer.

#include "engine/codec/VXCodecConstants.h"
#include "engine/codec/VXFilter.h"
#include "engine/codec/VXTranscoding.h"
#include "engine/codec/VXUtilCodec.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <thread>
#include <vector>

namespace {

int64_t runPass(const QString &in, const QString &out, const std::shared_ptr<VXFilter> &filter)
{
    auto t = VXTranscoding::initWithInput(in, out);
    if (!t)
        return -1;
    if (filter)
        t->addAudioFilter(filter);
    std::mutex lock;
    std::condition_variable done;
    int64_t result = -1;
    bool ended = false;
    t->transcodingWithBlock([&](int32_t state, int64_t value) {
        if (state != VXTranscodingStateEnd)
            return;
        std::lock_guard<std::mutex> guard(lock);
        result = value;
        ended = true;
        done.notify_all();
    });
    std::unique_lock<std::mutex> guard(lock);
    done.wait(guard, [&] { return ended; });
    guard.unlock();
    if (filter)
        filter->redirectStdErrToFile(filter->logFile());
    t.reset();
    if (filter)
        filter->cancelRedirectStdErr();
    return result;
}

bool twoPass(const QString &in, const QString &out)
{
    auto filter = VXFilter::filterWithName(VXALoudnormName);
    filter->setValue(-16.0f, kVXAIntegratedLoudnessTarget);
    filter->setValue(VXPrintFormatJSON, kVXPrintFormat);
    if (runPass(in, out, filter) != 0)
        return false;
    QFile log(filter->logFile());
    if (!log.open(QIODevice::ReadOnly))
        return false;
    const QByteArray text = log.readAll();
    const VXRange open = rangeOfDataFind(text, "{"), close = rangeOfDataFind(text, "}");
    if (open.location == VXNotFound || close.location == VXNotFound)
        return false;
    const QByteArray record = text.mid(open.location, close.location - open.location + 1);
    std::printf("%s: %s\n", qPrintable(out), record.constData());
    const QJsonObject m = QJsonDocument::fromJson(record).object();
    filter->setValue(m["input_i"].toString(), kVXAMeasuredIntegratedLoudness);
    filter->setValue(m["input_tp"].toString(), kVXAMeasuredTruePeak);
    filter->setValue(m["input_lra"].toString(), kVXAMeasuredLoudnessRange);
    filter->setValue(m["input_thresh"].toString(), kVXAMeasuredThresh);
    filter->setValue(m["target_offset"].toString(), kVXAGainOffset);
    filter->setValue(true, kVXALinearGain);
    filter->setValue(VXPrintFormatNone, kVXPrintFormat);
    return runPass(in, out, filter) == 0;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() < 3) {
        std::fprintf(stderr, "usage: evenloud-transcode IN OUT [--two-pass] [--jobs N]\n");
        return 2;
    }
    const QString in = args[1], out = args[2];
    const qsizetype jobsAt = args.indexOf("--jobs");
    const int jobs = jobsAt > 0 && jobsAt + 1 < args.size() ? args[jobsAt + 1].toInt() : 1;
    QElapsedTimer timer;
    timer.start();
    if (!args.contains("--two-pass"))
        return runPass(in, out, nullptr) == 0 ? 0 : 1;
    if (jobs <= 1) {
        const bool ok = twoPass(in, out);
        std::printf("two passes: %.2f s\n", double(timer.elapsed()) / 1000.0);
        return ok ? 0 : 1;
    }
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    const int dot = int(out.lastIndexOf('.'));
    for (int i = 0; i < jobs; ++i)
        threads.emplace_back([&, i] {
            if (!twoPass(in, out.left(dot) + QStringLiteral(".%1").arg(i) + out.mid(dot)))
                ++failures;
        });
    for (auto &t : threads)
        t.join();
    std::printf("%d jobs of two passes: %.2f s\n", jobs, double(timer.elapsed()) / 1000.0);
    return failures.load() == 0 ? 0 : 1;
}

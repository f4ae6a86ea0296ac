// Test-only tool for measuring the codec layer outside the test suite:
//   transcode_tool IN OUT             filterless transcoding
//   transcode_tool IN OUT --two-pass  loudnorm measure, then linear gain
// Prints the pass-1 record and the elapsed time; exit status 0 on success.

#include "engine/codec/VXCodecConstants.h"
#include "engine/codec/VXFilter.h"
#include "engine/codec/VXTranscoding.h"
#include "engine/codec/VXUtilCodec.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <condition_variable>
#include <cstdio>
#include <mutex>

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

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() < 3) {
        std::fprintf(stderr, "usage: transcode_tool IN OUT [--two-pass]\n");
        return 2;
    }
    const QString in = args[1], out = args[2];
    QElapsedTimer timer;
    timer.start();
    if (!args.contains("--two-pass"))
        return runPass(in, out, nullptr) == 0 ? 0 : 1;

    auto filter = VXFilter::filterWithName(VXALoudnormName);
    filter->setValue(-16.0f, kVXAIntegratedLoudnessTarget);
    filter->setValue(VXPrintFormatJSON, kVXPrintFormat);
    if (runPass(in, out, filter) != 0)
        return 1;
    QFile log(filter->logFile());
    log.open(QIODevice::ReadOnly);
    const QByteArray text = log.readAll();
    const VXRange open = rangeOfDataFind(text, "{"), close = rangeOfDataFind(text, "}");
    if (open.location == VXNotFound || close.location == VXNotFound)
        return 1;
    const QByteArray record = text.mid(open.location, close.location - open.location + 1);
    std::printf("%s\n", record.constData());
    const QJsonObject m = QJsonDocument::fromJson(record).object();
    filter->setValue(m["input_i"].toString(), kVXAMeasuredIntegratedLoudness);
    filter->setValue(m["input_tp"].toString(), kVXAMeasuredTruePeak);
    filter->setValue(m["input_lra"].toString(), kVXAMeasuredLoudnessRange);
    filter->setValue(m["input_thresh"].toString(), kVXAMeasuredThresh);
    filter->setValue(m["target_offset"].toString(), kVXAGainOffset);
    filter->setValue(true, kVXALinearGain);
    filter->setValue(VXPrintFormatNone, kVXPrintFormat);
    const int64_t r = runPass(in, out, filter);
    std::printf("two passes: %.2f s\n", double(timer.elapsed()) / 1000.0);
    return r == 0 ? 0 : 1;
}

#include "engine/codec/VXTranscoding.h"

#include "engine/codec/VXCancel.h"
#include "engine/codec/VXFilter.h"
#include "engine/codec/VXFilterPrivate.h"
#include "engine/codec/VXLog.h"
#include "engine/codec/VXPipeline.h"
#include "engine/codec/VXTranscode.h"
#include "engine/codec/VXCodecBackend.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <thread>

// The work itself is vx::transcode, here or in a worker child; this adds the
// asynchronous start, the cancel from any thread and the one end report.

struct VXTranscoding::Private {
    vx::TranscodeRequest request;
    std::unique_ptr<vx::Pipeline> pipeline;  // in process: opened at init, freed last
    VXCancel cancel;  // the run listens to it, here or in its child
    std::atomic<bool> started{false};
    // Orders the thread's assignment against its start: it may end, and be
    // asked to destroy us, before the assignment would otherwise be finished.
    std::mutex lock;
    std::thread thread;
    // Set by the run before its end report, read after it.
    VXResult<vx::TranscodeResult> outcome = VXError();
    QByteArray record;  // a measuring filter's print-out, printed as we are freed

    void run(VXTranscodingBlock block);
    bool measuresOnly() const;
    VXResult<vx::TranscodeResult> measure(const vx::Progress &progress);
};

VXTranscoding::VXTranscoding() : d(std::make_unique<Private>()) {}

VXTranscoding::~VXTranscoding()
{
    if (d->thread.joinable()) {
        if (d->thread.get_id() == std::this_thread::get_id()) {
            // Released from inside its own end report: the thread touches
            // nothing of ours after that call, so it may run out alone.
            d->thread.detach();
        } else {
            cancelTranscoding();
            d->thread.join();
        }
    }
    // Now, with no thread left, the filters print their records.
    d->pipeline.reset();
    if (!d->record.isEmpty())
        VXFilterAccess::logState(*d->request.filters.front())->append(d->record.constData(), size_t(d->record.size()));
}

std::shared_ptr<VXTranscoding> VXTranscoding::initWithInput(const QString &input, const QString &output,
                                                            QString *reason)
{
    // A worker opens the file itself and says why when it cannot: a damaged
    // file is never parsed in this process.
    VXResult<std::unique_ptr<vx::Pipeline>> opened = vx::codecBackend().open(input, output);
    if (!opened) {
        if (reason)
            *reason = opened.reason();
        return nullptr;
    }
    std::shared_ptr<VXTranscoding> t(new VXTranscoding);
    t->d->request.input = input;
    t->d->request.output = output;
    t->d->pipeline = std::move(*opened);
    return t;
}

void VXTranscoding::addAudioFilter(std::shared_ptr<VXFilter> filter)
{
    if (filter && !d->started.load())
        d->request.filters.push_back(std::move(filter));
}

void VXTranscoding::addStreamFilter(int streamIndex, std::shared_ptr<VXFilter> filter)
{
    if (filter && !d->started.load())
        d->request.streamFilters[streamIndex].push_back(std::move(filter));
}

void VXTranscoding::setMeasuresOtherAudio()
{
    if (!d->started.load())
        d->request.measureOthers = true;
}

void VXTranscoding::setMeasuresInput()
{
    if (!d->started.load())
        d->request.measureInput = true;
}

void VXTranscoding::setMeasuresOutput(int flags)
{
    if (!d->started.load())
        d->request.measureOutput = std::max(flags, 0);
}

// One run per object; a second call still gets its one end report.
void VXTranscoding::transcodingWithBlock(VXTranscodingBlock block)
{
    if (d->started.exchange(true)) {
        if (block)
            block(VXTranscodingStateEnd, VXTranscodingFailed);
        return;
    }
    std::lock_guard<std::mutex> guard(d->lock);
    d->thread = std::thread([p = d.get(), block = std::move(block)]() mutable {
        { std::lock_guard<std::mutex> assigned(p->lock); }
        p->run(std::move(block));
    });
}

int64_t VXTranscoding::transcodingHere(VXTranscodingBlock block)
{
    if (d->started.exchange(true)) {
        if (block)
            block(VXTranscodingStateEnd, VXTranscodingFailed);
        return VXTranscodingFailed;
    }
    int64_t result = VXTranscodingFailed;
    d->run([&](int32_t state, int64_t value) {
        if (state == VXTranscodingStateEnd)
            result = value;
        if (block)
            block(state, value);
    });
    return result;
}

void VXTranscoding::Private::run(VXTranscodingBlock block)
{
    int lastProgress = -1;
    const vx::Progress progress = [&](int percent) {
        if (percent > lastProgress && block) {
            lastProgress = percent;
            block(VXTranscodingStateProgress, percent);
        }
    };
    outcome = measuresOnly() ? measure(progress) : vx::codecBackend().transcode(request, pipeline, cancel, progress);
    const int64_t result = cancel.isCancelled() || (!outcome && VXIsCancelled(outcome.error())) ? VXTranscodingCancelled
        : outcome                                                                             ? VXTranscodingCompleted
                                                                                              : VXTranscodingFailed;
    // The end report is the last thing done here: its receiver may release
    // the transcoding from inside the call.
    if (block)
        block(VXTranscodingStateEnd, result);
}

bool VXTranscoding::Private::measuresOnly() const
{
    return request.filters.size() == 1 && request.streamFilters.empty()
        && VXFilterAccess::measuresOnly(*request.filters.front());
}

// The first pass with the reference meter: decoding alone at the file's own
// rate, nothing encoded or written, so a batch's first passes cost a fraction
// of a transcoding. The record follows from the figures; the figures
// themselves, steps included (they cost little), are the output's.
VXResult<vx::TranscodeResult> VXTranscoding::Private::measure(const vx::Progress &progress)
{
    pipeline.reset();  // its output stays the empty file it was
    const VXFilter &filter = *request.filters.front();
    const int flags = VXFilterAccess::measureFlags(filter) | VXMeasureCurve
        | (request.measureOthers ? VXMeasureOtherStreams : 0);
    const VXResult<vx::Measurement> measured = vx::codecBackend().measure(request.input, flags, &cancel, progress);
    if (!measured) {
        if (!VXIsCancelled(measured.error()) && !cancel.isCancelled())
            VXLog(QStringLiteral("Measuring %1 failed: %2").arg(request.input, measured.reason()));
        return measured.error();
    }
    record = filter.measurementRecord(measured->loudness);
    vx::TranscodeResult result;
    result.output = measured->loudness;
    result.otherAudio = measured->others;
    return result;
}

void VXTranscoding::cancelTranscoding()
{
    d->cancel.cancel();
}

VXLoudness VXTranscoding::outputLoudness() const { return d->outcome ? d->outcome->output : VXLoudness(); }

std::map<int, VXLoudness> VXTranscoding::otherAudioLoudness() const
{
    return d->outcome ? d->outcome->otherAudio : std::map<int, VXLoudness>();
}

VXLoudness VXTranscoding::inputLoudness() const { return d->outcome ? d->outcome->input : VXLoudness(); }

QString VXTranscoding::failureReason() const
{
    return d->outcome || VXIsCancelled(d->outcome.error()) ? QString() : d->outcome.reason();
}

quint64 VXTranscoding::inputDuration() const { return d->pipeline ? quint64(d->pipeline->durationUs) : 0; }

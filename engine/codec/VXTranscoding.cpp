#include "engine/codec/VXTranscoding.h"

#include "engine/codec/VXCancel.h"
#include "engine/codec/VXFilter.h"
#include "engine/codec/VXFilterPrivate.h"
#include "engine/codec/VXLog.h"
#include "engine/codec/VXMeasurePrivate.h"
#include "engine/codec/VXPipeline.h"
#include "engine/codec/VXTranscode.h"
#include "engine/codec/VXWorker.h"

#include <QFileInfo>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <thread>

// The work itself is vx::transcode, here or in a worker child; this adds the
// asynchronous start, the cancel from any thread and the one end report.

struct VXTranscoding::Private {
    vx::TranscodeRequest request;
    std::unique_ptr<vx::Pipeline> pipeline;  // in process: opened at init, freed last
    bool inWorker = false;
    std::atomic<bool> cancelled{false};
    VXCancel measureCancel;  // a measuring pass listens to it, here or in its child
    std::atomic<bool> started{false};
    // Orders a cancel against the worker run's creation, and the thread's
    // assignment against its start: it may end, and be asked to destroy us,
    // before the assignment would otherwise be finished.
    std::mutex lock;
    std::unique_ptr<vx::WorkerRun> worker;  // set while the work runs in a child
    std::thread thread;
    // Set by the run before its end report, read after it.
    vx::TranscodeOutcome outcome;
    QByteArray record;  // a measuring filter's print-out, printed as we are freed

    void run(VXTranscodingBlock block);
    vx::TranscodeOutcome runInWorker(const VXTranscodingBlock &block);
    bool measuresOnly() const;
    vx::TranscodeOutcome measure(const VXTranscodingBlock &block);
    QStringList workerArguments() const;
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
    std::unique_ptr<vx::Pipeline> pipeline;
    if (!vx::workerProgram().isEmpty()) {
        // The worker opens the file itself and says why when it cannot: a
        // damaged file is never parsed in this process.
        if (!QFileInfo(input).isFile()) {
            if (reason)
                *reason = QFileInfo::exists(input) ? QStringLiteral("not a regular file") : QStringLiteral("no such file");
            return nullptr;
        }
    } else {
        QString why;
        pipeline = vx::Pipeline::open(input, output, &why);
        if (!pipeline) {
            VXLog(QStringLiteral("Cannot transcode %1: %2").arg(input, why));
            if (reason)
                *reason = why;
            return nullptr;
        }
    }
    std::shared_ptr<VXTranscoding> t(new VXTranscoding);
    t->d->request.input = input;
    t->d->request.output = output;
    t->d->pipeline = std::move(pipeline);
    t->d->inWorker = !t->d->pipeline;
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
    if (measuresOnly()) {
        outcome = measure(block);
    } else if (inWorker) {
        outcome = runInWorker(block);
    } else {
        outcome = vx::transcode(request, pipeline, cancelled, [&block](int percent) {
            if (block)
                block(VXTranscodingStateProgress, percent);
        });
    }
    const int64_t result = cancelled.load() || outcome.status == vx::TranscodeOutcome::Cancelled
        ? VXTranscodingCancelled
        : outcome.status == vx::TranscodeOutcome::Failed ? VXTranscodingFailed
                                                         : VXTranscodingCompleted;
    // The end report is the last thing done here: its receiver may release
    // the transcoding from inside the call.
    if (block)
        block(VXTranscodingStateEnd, result);
}

vx::TranscodeOutcome VXTranscoding::Private::runInWorker(const VXTranscodingBlock &block)
{
    for (const auto &filter : request.filters)
        VXFilterAccess::logState(*filter)->clearPending();
    {
        // An hour of CPU at most; the child lowers it once it knows the
        // file's length.
        std::lock_guard<std::mutex> guard(lock);
        worker = std::make_unique<vx::WorkerRun>(workerArguments(), 3600.0);
        if (cancelled.load())
            worker->cancel();
    }
    int lastProgress = -1;
    vx::WorkerRun::Handlers handlers;
    handlers.progress = [&](int percent) {
        if (percent > lastProgress && block) {
            lastProgress = percent;
            block(VXTranscodingStateProgress, percent);
        }
    };
    // What the child's filters printed as they were freed: as if ours had.
    handlers.printOut = [this](int index, const QByteArray &bytes) {
        if (index >= 0 && size_t(index) < request.filters.size())
            VXFilterAccess::logState(*request.filters[size_t(index)])->append(bytes.constData(), size_t(bytes.size()));
    };
    const vx::WorkerRun::Outcome ran = worker->run(handlers);
    vx::TranscodeOutcome outcome;
    outcome.output = ran.loudness;
    outcome.otherAudio = ran.streams;
    outcome.input = ran.input;
    outcome.status = ran.cancelled ? vx::TranscodeOutcome::Cancelled
        : ran.completed            ? vx::TranscodeOutcome::Completed
                                   : vx::TranscodeOutcome::Failed;
    if (outcome.status == vx::TranscodeOutcome::Failed && !cancelled.load()) {
        outcome.reason = ran.reason.isEmpty() ? QStringLiteral("the worker failed") : ran.reason;
        VXLog(QStringLiteral("Transcoding %1 failed: %2").arg(request.input, outcome.reason));
    }
    return outcome;
}

bool VXTranscoding::Private::measuresOnly() const
{
    return request.filters.size() == 1 && request.streamFilters.empty()
        && VXFilterAccess::measuresOnly(*request.filters.front());
}

// The first pass with the reference meter: decoding alone at the file's own
// rate, nothing encoded or written, so a batch's first passes cost a fraction
// of a transcoding. The record follows from the figures.
vx::TranscodeOutcome VXTranscoding::Private::measure(const VXTranscodingBlock &block)
{
    pipeline.reset();  // its output stays the empty file it was
    const VXFilter &filter = *request.filters.front();
    const int flags = VXFilterAccess::measureFlags(filter) | (request.measureOthers ? VXMeasureOtherStreams : 0);
    int lastProgress = -1;
    auto progress = [&](int percent) {
        if (percent > lastProgress && block) {
            lastProgress = percent;
            block(VXTranscodingStateProgress, percent);
        }
    };
    vx::TranscodeOutcome result;
    VXLoudness input;
    const bool ok = vx::measure(request.input, flags, &input, &result.reason, &measureCancel, &result.otherAudio,
                                progress);
    if (cancelled.load()) {
        result.status = vx::TranscodeOutcome::Cancelled;
    } else if (ok) {
        result.status = vx::TranscodeOutcome::Completed;
        result.reason.clear();
        record = VXFilterAccess::measurementRecord(filter, input);
    } else {
        result.status = vx::TranscodeOutcome::Failed;
        if (result.reason.isEmpty())
            result.reason = QStringLiteral("the worker failed");
        VXLog(QStringLiteral("Measuring %1 failed: %2").arg(request.input, result.reason));
    }
    return result;
}

QStringList VXTranscoding::Private::workerArguments() const
{
    QStringList args{QStringLiteral("transcode"), request.input, request.output};
    if (request.measureOutput >= 0)
        args << QStringLiteral("--measure") << QString::number(request.measureOutput);
    if (request.measureOthers)
        args << QStringLiteral("--measure-streams") << QStringLiteral("1");
    if (request.measureInput)
        args << QStringLiteral("--measure-input") << QStringLiteral("1");
    auto addFilters = [&args](const std::vector<std::shared_ptr<VXFilter>> &filters) {
        for (const auto &filter : filters) {
            args << QStringLiteral("--filter") << filter->name();
            const QMap<QString, QVariant> attributes = filter->attributes();
            for (auto it = attributes.begin(); it != attributes.end(); ++it)
                args << QStringLiteral("--attr") << it.key() + QLatin1Char('=')
                        + QString::fromUtf8(VXFilterAccess::optionText(it.value()));
        }
    };
    addFilters(request.filters);
    for (const auto &[index, filters] : request.streamFilters) {
        args << QStringLiteral("--stream") << QString::number(index);
        addFilters(filters);
    }
    return args;
}

void VXTranscoding::cancelTranscoding()
{
    d->cancelled.store(true);
    d->measureCancel.cancel();
    std::lock_guard<std::mutex> guard(d->lock);
    if (d->worker)
        d->worker->cancel();
}

VXLoudness VXTranscoding::outputLoudness() const { return d->outcome.output; }

std::map<int, VXLoudness> VXTranscoding::otherAudioLoudness() const { return d->outcome.otherAudio; }

VXLoudness VXTranscoding::inputLoudness() const { return d->outcome.input; }

QString VXTranscoding::failureReason() const { return d->outcome.reason; }

quint64 VXTranscoding::inputDuration() const { return d->pipeline ? quint64(d->pipeline->durationUs) : 0; }

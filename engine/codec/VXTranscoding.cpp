#include "engine/codec/VXTranscoding.h"

#include "engine/codec/VXFilter.h"
#include "engine/codec/VXLog.h"
#include "engine/codec/VXPipeline.h"
#include "engine/codec/VXWorkQueue.h"
#include "engine/codec/VXWorker.h"
#include "engine/codec/VXFilterPrivate.h"

extern "C" {
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
}

#include <QFileInfo>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

// Two threads per transcoding: the reader demuxes, decodes and filters; the
// writer encodes and muxes. A bounded queue between them keeps memory flat
// whatever the file's length, and a single file keeps two cores busy.

namespace {
constexpr size_t kQueueCapacity = 48;

// Lossy encoders take float samples and assume they lie within full scale;
// a corrupt frame that decodes to +79 dBFS makes libmp3lame abort the
// process. What they get is clamped there, and NaN becomes silence.
template <typename T>
void clampSamples(T *data, size_t count)
{
    for (size_t i = 0; i < count; ++i)
        data[i] = std::isnan(data[i]) ? T(0) : std::clamp(data[i], T(-1), T(1));
}

void clampFrame(AVFrame *frame)
{
    const auto fmt = AVSampleFormat(frame->format);
    const bool planar = av_sample_fmt_is_planar(fmt);
    const int planes = planar ? frame->ch_layout.nb_channels : 1;
    const size_t count = size_t(frame->nb_samples) * size_t(planar ? 1 : frame->ch_layout.nb_channels);
    for (int p = 0; p < planes; ++p) {
        if (av_get_packed_sample_fmt(fmt) == AV_SAMPLE_FMT_FLT)
            clampSamples(reinterpret_cast<float *>(frame->extended_data[p]), count);
        else if (av_get_packed_sample_fmt(fmt) == AV_SAMPLE_FMT_DBL)
            clampSamples(reinterpret_cast<double *>(frame->extended_data[p]), count);
    }
}

bool isLossy(const AVCodecContext *encoder)
{
    const AVCodecDescriptor *desc = avcodec_descriptor_get(encoder->codec_id);
    return desc && !(desc->props & AV_CODEC_PROP_LOSSLESS);
}
} // namespace

struct VXTranscoding::Private {
    QString inPath;
    QString outPath;
    std::unique_ptr<vx::WorkerRun> worker;  // set when the work runs in a child
    std::unique_ptr<vx::Pipeline> pipeline;
    std::vector<std::shared_ptr<VXFilter>> filters;
    std::map<int, std::vector<std::shared_ptr<VXFilter>>> streamFilters;  // by input stream index
    bool measureOthers = false;
    VXTranscodingBlock block;

    vx::WorkQueue queue{kQueueCapacity};
    std::atomic<bool> cancelled{false};
    std::atomic<bool> failed{false};
    std::atomic<bool> started{false};
    // Held while `reader` is assigned: the thread may end, and be asked to
    // destroy us, before the assignment would otherwise be finished.
    std::mutex threadLock;
    std::thread reader;
    std::thread writer;
    int lastProgress = -1; // writer thread only
    // Written by the workers before the end report and read after it; the
    // lock makes that order visible to ThreadSanitizer, to which the job's
    // QSemaphore wait is opaque.
    mutable std::mutex resultLock;
    QString failure;       // set once, by fail()

    // Per lane. Reader thread: frames whose rate, layout or format differ
    // from the stream's first are converted to it, since the graph is fixed;
    // further streams are measured as they are decoded. Writer thread: the
    // samples encoded so far.
    struct LaneWork {
        vx::SwrPtr conform;
        vx::FramePtr conformed = vx::makeFrame();
        std::unique_ptr<VXFrameMeter> meter;
        bool clamp = false;
        int64_t basePts = AV_NOPTS_VALUE;
        int64_t samples = 0;
    };
    std::vector<LaneWork> work;
    int measureOutput = -1;  // -1 no, 0 loudness and range, 1 with true peak
    VXLoudness loudness;     // under resultLock
    std::map<int, VXLoudness> otherLoudness;  // under resultLock

    bool conformFrame(vx::Lane &lane, LaneWork &w, AVFrame *decoded);

    bool prepare(QString *why);
    void run();
    void runInWorker();
    bool readAll();
    bool decode(size_t lane, AVPacket *packet, AVFrame *decoded, AVFrame *filtered);
    bool drainGraph(size_t lane, AVFrame *filtered, bool atEnd);
    void writeAll();
    bool encode(size_t lane, AVFrame *frame, AVPacket *packet);
    void report(int64_t ptsInEncoderBase);
    void fail(const QString &why)
    {
        if (!failed.exchange(true)) {
            std::lock_guard<std::mutex> guard(resultLock);
            failure = why;
            VXLog(QStringLiteral("Transcoding %1 failed: %2").arg(inPath, why));
        }
        queue.abort();
    }
    bool stopping() const { return cancelled.load() || failed.load(); }
};

VXTranscoding::VXTranscoding() : d(std::make_unique<Private>()) {}

VXTranscoding::~VXTranscoding()
{
    if (d->reader.joinable()) {
        if (d->reader.get_id() == std::this_thread::get_id()) {
            // Released from inside its own end report: the reader touches
            // nothing of ours after that call, so it may run out alone.
            d->reader.detach();
        } else {
            cancelTranscoding();
            d->reader.join();
        }
    }
    // Now, with no thread left, the filters print their records.
    d->pipeline.reset();
}

std::shared_ptr<VXTranscoding> VXTranscoding::initWithInput(const QString &input, const QString &output,
                                                            QString *reason)
{
    QString why;
    if (!vx::workerProgram().isEmpty()) {
        // The worker opens the file itself and says why when it cannot: a
        // damaged file is never parsed in this process.
        if (!QFileInfo(input).isFile()) {
            if (reason)
                *reason = QFileInfo::exists(input) ? QStringLiteral("not a regular file") : QStringLiteral("no such file");
            return nullptr;
        }
        std::shared_ptr<VXTranscoding> t(new VXTranscoding);
        t->d->inPath = input;
        t->d->outPath = output;
        return t;
    }
    auto pipeline = vx::Pipeline::open(input, output, &why);
    if (!pipeline) {
        VXLog(QStringLiteral("Cannot transcode %1: %2").arg(input, why));
        if (reason)
            *reason = why;
        return nullptr;
    }
    std::shared_ptr<VXTranscoding> t(new VXTranscoding);
    t->d->inPath = input;
    t->d->outPath = output;
    t->d->pipeline = std::move(pipeline);
    return t;
}

void VXTranscoding::addAudioFilter(std::shared_ptr<VXFilter> filter)
{
    if (filter && !d->started.load())
        d->filters.push_back(std::move(filter));
}

void VXTranscoding::addStreamFilter(int streamIndex, std::shared_ptr<VXFilter> filter)
{
    if (filter && !d->started.load())
        d->streamFilters[streamIndex].push_back(std::move(filter));
}

void VXTranscoding::setMeasuresOtherAudio()
{
    if (!d->started.load())
        d->measureOthers = true;
}

std::map<int, VXLoudness> VXTranscoding::otherAudioLoudness() const
{
    std::lock_guard<std::mutex> guard(d->resultLock);
    return d->otherLoudness;
}

void VXTranscoding::transcodingWithBlock(VXTranscodingBlock block)
{
    if (d->started.exchange(true)) {
        // One run per object; a second call still gets its one end report.
        if (block)
            block(VXTranscodingStateEnd, VXTranscodingFailed);
        return;
    }
    d->block = std::move(block);
    std::lock_guard<std::mutex> guard(d->threadLock);
    if (!vx::workerProgram().isEmpty()) {
        QStringList args{QStringLiteral("transcode"), d->inPath, d->outPath};
        if (d->measureOutput >= 0)
            args << QStringLiteral("--measure") << QString::number(d->measureOutput);
        if (d->measureOthers)
            args << QStringLiteral("--measure-streams") << QStringLiteral("1");
        auto addFilters = [&args](const std::vector<std::shared_ptr<VXFilter>> &filters) {
            for (const auto &filter : filters) {
                args << QStringLiteral("--filter") << filter->name();
                const QMap<QString, QVariant> attributes = filter->attributes();
                for (auto it = attributes.begin(); it != attributes.end(); ++it)
                    args << QStringLiteral("--attr") << it.key() + QLatin1Char('=')
                            + QString::fromUtf8(VXFilterAccess::optionText(it.value()));
            }
        };
        addFilters(d->filters);
        for (const auto &[index, filters] : d->streamFilters) {
            args << QStringLiteral("--stream") << QString::number(index);
            addFilters(filters);
        }
        // An hour of CPU at most; the child lowers it once it knows the
        // file's length (see inputDuration).
        d->worker = std::make_unique<vx::WorkerRun>(args, 3600.0);
        d->reader = std::thread([p = d.get()] {
            { std::lock_guard<std::mutex> assigned(p->threadLock); }
            p->runInWorker();
        });
        return;
    }
    d->reader = std::thread([p = d.get()] {
        { std::lock_guard<std::mutex> assigned(p->threadLock); }
        p->run();
    });
}

void VXTranscoding::cancelTranscoding()
{
    d->cancelled.store(true);
    d->queue.abort();
    std::lock_guard<std::mutex> guard(d->threadLock);
    if (d->worker)
        d->worker->cancel();
}

void VXTranscoding::setMeasuresOutput(bool truePeak)
{
    if (!d->started.load())
        d->measureOutput = truePeak ? 1 : 0;
}

VXLoudness VXTranscoding::outputLoudness() const
{
    std::lock_guard<std::mutex> guard(d->resultLock);
    return d->loudness;
}

quint64 VXTranscoding::inputDuration() const { return d->pipeline ? quint64(d->pipeline->durationUs) : 0; }

// Written by the worker before its end report, which the caller waits for.
QString VXTranscoding::failureReason() const
{
    std::lock_guard<std::mutex> guard(d->resultLock);
    return d->failure;
}

// The lanes: one for the main stream, and one for each further audio stream
// that is to be measured or filtered (the file is opened again for those,
// since its output streams are fixed once opened).
bool VXTranscoding::Private::prepare(QString *why)
{
    if (measureOthers || !streamFilters.empty()) {
        std::vector<int> more;
        for (const int index : pipeline->otherAudioStreams())
            if (measureOthers || streamFilters.count(index))
                more.push_back(index);
        if (!more.empty()) {
            pipeline.reset();
            pipeline = vx::Pipeline::open(inPath, outPath, why, more);
            if (!pipeline)
                return false;
        }
    }
    work.resize(pipeline->lanes.size());
    for (size_t l = 0; l < pipeline->lanes.size(); ++l) {
        vx::Lane &lane = *pipeline->lanes[l];
        const auto own = streamFilters.find(lane.inIndex);
        static const std::vector<std::shared_ptr<VXFilter>> none;
        if (!pipeline->buildGraph(lane, l == 0 ? filters : own == streamFilters.end() ? none : own->second, why))
            return false;
        work[l].clamp = isLossy(lane.encoder.get());
        if (l > 0 && measureOthers)
            work[l].meter = std::make_unique<VXFrameMeter>(true);
    }
    return true;
}

void VXTranscoding::Private::run()
{
    QString why;
    if (!prepare(&why)) {
        fail(why);
    } else {
        writer = std::thread([this] { writeAll(); });
        if (!readAll() && !stopping())
            fail(QStringLiteral("reading"));
        queue.close();
        writer.join();
    }
    if (!stopping()) {
        std::lock_guard<std::mutex> guard(resultLock);
        for (size_t l = 1; l < work.size(); ++l)
            if (work[l].meter)
                otherLoudness[pipeline->lanes[l]->inIndex] = work[l].meter->finish();
    }
    if (measureOutput >= 0 && !stopping()) {
        QString why;
        VXLoudness measured;
        if (!VXMeasureFile(outPath, measureOutput == 1, &measured, &why))
            fail(QStringLiteral("cannot measure the result: %1").arg(why));
        std::lock_guard<std::mutex> guard(resultLock);
        loudness = measured;
    }
    const int64_t result = cancelled.load() ? VXTranscodingCancelled
        : failed.load()                     ? VXTranscodingFailed
                                            : VXTranscodingCompleted;
    // The end report is the last thing this thread does: its receiver may
    // release the transcoding from inside the call.
    VXTranscodingBlock end = std::move(block);
    if (end)
        end(VXTranscodingStateEnd, result);
}

void VXTranscoding::Private::runInWorker()
{
    for (const auto &filter : filters)
        VXFilterAccess::logState(*filter)->clearPending();
    vx::WorkerRun::Handlers handlers;
    handlers.progress = [this](int percent) {
        if (percent > lastProgress && block) {
            lastProgress = percent;
            block(VXTranscodingStateProgress, percent);
        }
    };
    // What the child's filters printed as they were freed: as if ours had.
    handlers.printOut = [this](int index, const QByteArray &bytes) {
        if (index >= 0 && size_t(index) < filters.size())
            VXFilterAccess::logState(*filters[size_t(index)])->append(bytes.constData(), size_t(bytes.size()));
    };
    const vx::WorkerRun::Outcome outcome = worker->run(handlers);
    {
        std::lock_guard<std::mutex> guard(resultLock);
        loudness = outcome.loudness;
        otherLoudness = outcome.streams;
    }
    if (!outcome.completed && !outcome.cancelled && !cancelled.load())
        fail(outcome.reason.isEmpty() ? QStringLiteral("the worker failed") : outcome.reason);
    const int64_t result = cancelled.load() || outcome.cancelled ? VXTranscodingCancelled
        : failed.load()                                           ? VXTranscodingFailed
                                                                  : VXTranscodingCompleted;
    VXTranscodingBlock end = std::move(block);
    if (end)
        end(VXTranscodingStateEnd, result);
}

bool VXTranscoding::Private::readAll()
{
    vx::Pipeline &p = *pipeline;
    auto packet = vx::makePacket();
    auto decoded = vx::makeFrame();
    auto filtered = vx::makeFrame();
    if (!packet || !decoded || !filtered)
        return false;
    int err = 0;
    while (!stopping() && (err = av_read_frame(p.input.get(), packet.get())) >= 0) {
        const size_t index = size_t(packet->stream_index);
        if (const int lane = p.laneOf[index]; lane >= 0) {
            const bool ok = decode(size_t(lane), packet.get(), decoded.get(), filtered.get());
            av_packet_unref(packet.get());
            if (!ok)
                return false;
        } else if (const int target = p.streamMap[index]; target >= 0) {
            const AVStream *ist = p.input->streams[packet->stream_index];
            const AVStream *ost = p.output->streams[target];
            av_packet_rescale_ts(packet.get(), ist->time_base, ost->time_base);
            packet->stream_index = target;
            packet->pos = -1;
            vx::WorkItem item;
            item.packet = vx::makePacket();
            av_packet_move_ref(item.packet.get(), packet.get());
            if (!queue.push(std::move(item)))
                return false;
        } else {
            av_packet_unref(packet.get());
        }
    }
    if (stopping())
        return false;
    // A read error mid-file is treated like its end, as players do; what
    // was decoded so far is kept.
    if (err != AVERROR_EOF)
        VXLog(QStringLiteral("Reading %1 stopped early: %2").arg(inPath, vx::errorString(err)));
    for (size_t lane = 0; lane < p.lanes.size(); ++lane) {
        if (!decode(lane, nullptr, decoded.get(), filtered.get())
            || av_buffersrc_add_frame_flags(p.lanes[lane]->source, nullptr, 0) < 0
            || !drainGraph(lane, filtered.get(), true))
            return false;
    }
    return true;
}

// Sends one packet (nullptr: the end) and moves every frame it yields
// through the lane's graph into the queue. Corrupt packets are skipped.
bool VXTranscoding::Private::decode(size_t l, AVPacket *packet, AVFrame *decoded, AVFrame *filtered)
{
    vx::Lane &lane = *pipeline->lanes[l];
    LaneWork &w = work[l];
    int err = avcodec_send_packet(lane.decoder.get(), packet);
    if (err < 0 && err != AVERROR(EAGAIN) && err != AVERROR_EOF && err != AVERROR_INVALIDDATA)
        return false;
    while ((err = avcodec_receive_frame(lane.decoder.get(), decoded)) >= 0 || err == AVERROR_INVALIDDATA) {
        if (err < 0)
            continue;
        decoded->pts = decoded->best_effort_timestamp;
        if (w.meter && !w.meter->add(decoded)) {
            fail(QStringLiteral("cannot measure audio stream %1").arg(lane.inIndex));
            return false;
        }
        if (lane.matchesSource(decoded)) {
            err = av_buffersrc_add_frame_flags(lane.source, decoded, 0);
        } else if (conformFrame(lane, w, decoded)) {
            err = av_buffersrc_add_frame_flags(lane.source, w.conformed.get(), 0);
        } else {
            fail(QStringLiteral("cannot convert a frame whose format changed mid-stream"));
            return false;
        }
        av_frame_unref(decoded);
        if (err < 0 || !drainGraph(l, filtered, false))
            return false;
    }
    return err == AVERROR(EAGAIN) || err == AVERROR_EOF;
}

bool VXTranscoding::Private::drainGraph(size_t l, AVFrame *filtered, bool atEnd)
{
    int err = 0;
    while ((err = av_buffersink_get_frame(pipeline->lanes[l]->sink, filtered)) >= 0) {
        if (work[l].clamp)
            clampFrame(filtered);
        vx::WorkItem item;
        item.frame = vx::makeFrame();
        item.lane = int(l);
        av_frame_move_ref(item.frame.get(), filtered);
        if (!queue.push(std::move(item)))
            return false;
    }
    return err == AVERROR(EAGAIN) || (atEnd && err == AVERROR_EOF);
}

// The tail a rate change leaves inside the converter (a few samples) is
// dropped when the format switches back; the stream stays continuous.
bool VXTranscoding::Private::conformFrame(vx::Lane &lane, LaneWork &w, AVFrame *decoded)
{
    if (!w.conform)
        w.conform.reset(swr_alloc());
    if (!w.conform || !w.conformed)
        return false;
    AVFrame *conformed = w.conformed.get();
    av_frame_unref(conformed);
    conformed->format = lane.sourceFormat;
    conformed->sample_rate = lane.sourceRate;
    if (av_channel_layout_copy(&conformed->ch_layout, &lane.sourceLayout) < 0)
        return false;
    int err = swr_convert_frame(w.conform.get(), conformed, decoded);
    if (err == AVERROR_INPUT_CHANGED || err == AVERROR_OUTPUT_CHANGED) {
        if (swr_config_frame(w.conform.get(), conformed, decoded) < 0)
            return false;
        err = swr_convert_frame(w.conform.get(), conformed, decoded);
    }
    conformed->pts = decoded->pts;
    return err >= 0;
}

void VXTranscoding::Private::writeAll()
{
    vx::Pipeline &p = *pipeline;
    AVFormatContext *out = p.output.get();
    auto packet = vx::makePacket();
    int err = avformat_write_header(out, nullptr);
    if (err < 0 || !packet) {
        fail(QStringLiteral("writing the header: %1").arg(vx::errorString(err)));
        return;
    }
    vx::WorkItem item;
    while (queue.pop(&item)) {
        if (item.packet) {
            if ((err = av_interleaved_write_frame(out, item.packet.get())) < 0)
                return fail(QStringLiteral("muxing: %1").arg(vx::errorString(err)));
            continue;
        }
        // Audio timestamps count samples from the first frame's time, so
        // gaps or jitter in the source never reach the encoder.
        const size_t l = size_t(item.lane);
        const vx::Lane &lane = *p.lanes[l];
        LaneWork &w = work[l];
        AVFrame *frame = item.frame.get();
        if (w.basePts == AV_NOPTS_VALUE)
            w.basePts = frame->pts == AV_NOPTS_VALUE
                ? 0
                : av_rescale_q(frame->pts, av_buffersink_get_time_base(lane.sink), lane.encoder->time_base);
        frame->pts = w.basePts + w.samples;
        w.samples += frame->nb_samples;
        if (!encode(l, frame, packet.get()))
            return;
        if (l == 0)
            report(frame->pts);
        item = {};
    }
    if (stopping())
        return;
    for (size_t l = 0; l < p.lanes.size(); ++l)
        if (!encode(l, nullptr, packet.get()))
            return;
    if ((err = av_write_trailer(out)) < 0)
        return fail(QStringLiteral("writing the trailer: %1").arg(vx::errorString(err)));
    // Closed before the end report: the receiver moves the file next.
    if (!(out->oformat->flags & AVFMT_NOFILE))
        avio_closep(&out->pb);
    if (lastProgress < 100 && block)
        block(VXTranscodingStateProgress, 100);
}

bool VXTranscoding::Private::encode(size_t l, AVFrame *frame, AVPacket *packet)
{
    vx::Pipeline &p = *pipeline;
    const vx::Lane &lane = *p.lanes[l];
    int err = avcodec_send_frame(lane.encoder.get(), frame);
    if (err < 0) {
        fail(QStringLiteral("encoding: %1").arg(vx::errorString(err)));
        return false;
    }
    const AVRational streamBase = p.output->streams[lane.outIndex]->time_base;
    while ((err = avcodec_receive_packet(lane.encoder.get(), packet)) >= 0) {
        packet->stream_index = lane.outIndex;
        av_packet_rescale_ts(packet, lane.encoder->time_base, streamBase);
        if ((err = av_interleaved_write_frame(p.output.get(), packet)) < 0) {
            fail(QStringLiteral("muxing: %1").arg(vx::errorString(err)));
            return false;
        }
    }
    if (err != AVERROR(EAGAIN) && err != AVERROR_EOF) {
        fail(QStringLiteral("encoding: %1").arg(vx::errorString(err)));
        return false;
    }
    return true;
}

void VXTranscoding::Private::report(int64_t ptsInEncoderBase)
{
    const vx::Pipeline &p = *pipeline;
    if (p.durationUs <= 0 || !block)
        return;
    const int64_t doneUs = av_rescale_q(ptsInEncoderBase, p.lanes.front()->encoder->time_base, AVRational{1, AV_TIME_BASE});
    const int64_t startUs = p.input->start_time == AV_NOPTS_VALUE ? 0 : p.input->start_time;
    // 99 at most until the file is complete: 100 means written.
    const int percent = int(std::clamp<int64_t>((doneUs - startUs) * 100 / p.durationUs, 0, 99));
    if (percent <= lastProgress)
        return;
    lastProgress = percent;
    block(VXTranscodingStateProgress, percent);
}

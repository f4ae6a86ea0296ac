#include "engine/codec/VXTranscode.h"

#include "engine/codec/VXCodecBackend.h"
#include "engine/codec/VXEncoderChoice.h"
#include "engine/codec/VXFilterPrivate.h"
#include "engine/codec/VXLog.h"
#include "engine/codec/VXPipeline.h"

extern "C" {
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavutil/threadmessage.h>
}

#include <algorithm>
#include <malloc.h>
#include <mutex>
#include <thread>

namespace vx {
namespace {

// Reading (demux, decode, filter) and writing (encode, mux) overlap: the
// writer runs on a thread of its own, fed through a bounded queue that keeps
// memory flat whatever the file's length. A lossy target's encoder is a good
// part of the work, so a single file finishes sooner; see docs/architecture.md.
constexpr int kQueueCapacity = 48;

// One item for the writer: a lane's filtered frame, or a copied packet.
struct Handover {
    AVFrame *frame;
    AVPacket *packet;
    int lane;
};

void freeHandover(void *message)
{
    auto *h = static_cast<Handover *>(message);
    av_frame_free(&h->frame);
    av_packet_free(&h->packet);
}

struct QueueFreer {
    void operator()(AVThreadMessageQueue *q) const
    {
        av_thread_message_flush(q);
        av_thread_message_queue_free(&q);
    }
};
using QueuePtr = std::unique_ptr<AVThreadMessageQueue, QueueFreer>;

// What one lane needs beside its codecs: frames whose rate, layout or format
// differ from the stream's first are converted to it (the graph is fixed);
// further streams are metered as decoded; audio timestamps count samples.
struct LaneState {
    SwrPtr conform;
    FramePtr conformed = makeFrame();
    std::unique_ptr<VXFrameMeter> meter;
    bool clamp = false;
    int64_t basePts = AV_NOPTS_VALUE;
    int64_t samples = 0;
};

// The steps of one run; transcode() below strings them together.
struct Run {
    Run(const TranscodeRequest &r, const VXCancel &c, const std::function<void(int)> &f)
        : request(r), cancel(c), progress(f) {}

    const TranscodeRequest &request;
    const VXCancel &cancel;
    const std::function<void(int)> &progress;
    Pipeline *p = nullptr;
    std::vector<LaneState> lanes;
    FramePtr decoded = makeFrame();   // reader
    FramePtr filtered = makeFrame();  // reader
    PacketPtr encoded = makePacket(); // writer
    QueuePtr queue;
    std::atomic<bool> failed{false};
    std::mutex failureLock;
    QString failure;        // the first failure's reason
    int lastProgress = -1;  // writer

    bool fail(const QString &why)
    {
        std::lock_guard<std::mutex> guard(failureLock);
        if (!failed.exchange(true)) {
            failure = why;
            VXLog(QStringLiteral("Transcoding %1 failed: %2").arg(request.input, why));
        }
        return false;
    }
    bool stopping() const { return failed.load() || cancel.isCancelled(); }

    // The lanes: one for the main stream, one for each further audio stream
    // to be filtered or measured (the file is opened again for those, as its
    // output streams are fixed once opened); each with its graph.
    bool reopen(std::unique_ptr<Pipeline> &pipeline, const std::vector<int> &more = {})
    {
        pipeline.reset();
        VXResult<std::unique_ptr<Pipeline>> opened = Pipeline::open(request.input, request.output, more);
        return opened ? bool(pipeline = std::move(*opened)) : fail(opened.reason());
    }

    bool prepare(std::unique_ptr<Pipeline> &pipeline)
    {
        if (!pipeline && !reopen(pipeline))
            return false;
        if (request.measureOthers || !request.streamFilters.empty()) {
            std::vector<int> more;
            for (const int index : pipeline->otherAudioStreams())
                if (request.measureOthers || request.streamFilters.count(index))
                    more.push_back(index);
            if (!more.empty() && !reopen(pipeline, more))
                return false;
        }
        p = pipeline.get();
        lanes.resize(p->lanes.size());
        static const std::vector<std::shared_ptr<VXFilter>> none;
        for (size_t l = 0; l < p->lanes.size(); ++l) {
            Lane &lane = *p->lanes[l];
            const auto own = request.streamFilters.find(lane.inIndex);
            const auto &filters = l == 0 ? request.filters : own == request.streamFilters.end() ? none : own->second;
            if (const VXResult<> built = p->buildGraph(lane, filters); !built)
                return fail(built.reason());
            lanes[l].clamp = !isLossless(lane.encoder->codec_id);
            if (l > 0 && request.measureOthers)
                lanes[l].meter = std::make_unique<VXFrameMeter>(true);
            if (l == 0 && request.measureInput) {
                const bool dualMono = !filters.empty()
                    && (VXFilterAccess::measureFlags(*filters.front()) & VXMeasureDualMono);
                if (!VXLoudnormWeighsAlike(lane.sourceLayout, dualMono))
                    lanes[l].meter = std::make_unique<VXFrameMeter>(false, false, dualMono);
            }
        }
        AVThreadMessageQueue *q = nullptr;
        if (av_thread_message_queue_alloc(&q, kQueueCapacity, sizeof(Handover)) < 0)
            return fail(QStringLiteral("out of memory"));
        queue.reset(q);
        av_thread_message_queue_set_free_func(q, freeHandover);
        if (!decoded || !filtered || !encoded || std::any_of(lanes.begin(), lanes.end(), [](auto &s) { return !s.conformed; }))
            return fail(QStringLiteral("out of memory"));
        return true;
    }

    // Reader: passes a frame or packet to the writer (taking its reference);
    // blocks while the queue is full, false once the writer has stopped.
    bool handOver(int lane, AVFrame *frame, AVPacket *packet)
    {
        Handover h{frame ? av_frame_alloc() : nullptr, packet ? av_packet_alloc() : nullptr, lane};
        if (frame ? !h.frame : !h.packet)
            return fail(QStringLiteral("out of memory"));
        frame ? av_frame_move_ref(h.frame, frame) : av_packet_move_ref(h.packet, packet);
        if (av_thread_message_queue_send(queue.get(), &h, 0) >= 0)
            return true;
        freeHandover(&h);
        return false;
    }

    // A packet of a copied stream goes to the muxer as it is.
    bool copy(AVPacket *packet)
    {
        const int target = p->streamMap[size_t(packet->stream_index)];
        av_packet_rescale_ts(packet, p->input->streams[packet->stream_index]->time_base, p->output->streams[target]->time_base);
        packet->stream_index = target;
        packet->pos = -1;
        return handOver(-1, nullptr, packet);
    }

    // Writer: encodes and muxes what the reader hands over until it closes
    // the queue; on a failure or cancel the reader is released at once.
    void write()
    {
        Handover h{};
        while (av_thread_message_queue_recv(queue.get(), &h, 0) >= 0) {
            bool ok = !stopping();
            if (ok && h.packet) {
                const int err = av_interleaved_write_frame(p->output.get(), h.packet);
                ok = err >= 0 || fail(QStringLiteral("muxing: %1").arg(errorString(err)));
            } else if (ok && (ok = encode(size_t(h.lane), h.frame)) && h.lane == 0) {
                report(h.frame->pts);
            }
            freeHandover(&h);
            if (!ok) {
                av_thread_message_queue_set_err_send(queue.get(), AVERROR_EXIT);
                av_thread_message_flush(queue.get());
                return;
            }
        }
    }

    // Sends one packet (nullptr: the end) to the lane's decoder and takes
    // every frame it yields through the graph. Corrupt packets are skipped,
    // as players and the meter skip them, whatever code the decoder gives
    // (AC-3 has codes of its own); what was lost shows in the result's check.
    bool decode(size_t l, const AVPacket *packet)
    {
        Lane &lane = *p->lanes[l];
        LaneState &s = lanes[l];
        int err = avcodec_send_packet(lane.decoder.get(), packet);
        if (err == AVERROR(ENOMEM))
            return fail(QStringLiteral("out of memory"));
        while ((err = avcodec_receive_frame(lane.decoder.get(), decoded.get())) >= 0 || err == AVERROR_INVALIDDATA) {
            if (err < 0)
                continue;
            AVFrame *frame = decoded.get();
            frame->pts = frame->best_effort_timestamp;
            if (s.meter && !s.meter->add(frame))
                return fail(QStringLiteral("cannot measure audio stream %1").arg(lane.inIndex));
            if (!lane.matchesSource(frame)) {
                if (!conform(lane, s, frame))
                    return fail(QStringLiteral("cannot convert a frame whose format changed mid-stream"));
                frame = s.conformed.get();
            }
            err = av_buffersrc_add_frame_flags(lane.source, frame, 0);
            av_frame_unref(decoded.get());
            if (err < 0)
                return fail(QStringLiteral("filtering: %1").arg(errorString(err)));
            if (!filter(l, false))
                return false;
        }
        return err != AVERROR(ENOMEM) || fail(QStringLiteral("out of memory"));
    }

    // The tail a rate change leaves inside the converter (a few samples) is
    // dropped when the format switches back; the stream stays continuous.
    static bool conform(const Lane &lane, LaneState &s, const AVFrame *frame)
    {
        if (!s.conform)
            s.conform.reset(swr_alloc());
        if (!s.conform)
            return false;
        AVFrame *out = s.conformed.get();
        av_frame_unref(out);
        out->format = lane.sourceFormat;
        out->sample_rate = lane.sourceRate;
        if (av_channel_layout_copy(&out->ch_layout, &lane.sourceLayout) < 0)
            return false;
        int err = swr_convert_frame(s.conform.get(), out, frame);
        if (err == AVERROR_INPUT_CHANGED || err == AVERROR_OUTPUT_CHANGED) {
            if (swr_config_frame(s.conform.get(), out, frame) < 0)
                return false;
            err = swr_convert_frame(s.conform.get(), out, frame);
        }
        out->pts = frame->pts;
        return err >= 0;
    }

    // Hands what the graph has ready to the writer.
    bool filter(size_t l, bool atEnd)
    {
        const Lane &lane = *p->lanes[l];
        LaneState &s = lanes[l];
        AVFrame *frame = filtered.get();
        int err = 0;
        while ((err = av_buffersink_get_frame(lane.sink, frame)) >= 0) {
            if (s.clamp)
                clampToFullScale(frame);
            // Timestamps count samples from the first frame's time, so gaps
            // or jitter in the source never reach the encoder.
            if (s.basePts == AV_NOPTS_VALUE)
                s.basePts = frame->pts == AV_NOPTS_VALUE
                    ? 0
                    : av_rescale_q(frame->pts, av_buffersink_get_time_base(lane.sink), lane.encoder->time_base);
            frame->pts = s.basePts + s.samples;
            s.samples += frame->nb_samples;
            if (!handOver(int(l), frame, nullptr))
                return false;
        }
        return err == AVERROR(EAGAIN) || (atEnd && err == AVERROR_EOF);
    }

    // Sends one frame (nullptr: the end) and muxes every packet it yields.
    bool encode(size_t l, const AVFrame *frame)
    {
        const Lane &lane = *p->lanes[l];
        int err = avcodec_send_frame(lane.encoder.get(), frame);
        if (err < 0)
            return fail(QStringLiteral("encoding: %1").arg(errorString(err)));
        const AVRational streamBase = p->output->streams[lane.outIndex]->time_base;
        AVPacket *packet = encoded.get();
        while ((err = avcodec_receive_packet(lane.encoder.get(), packet)) >= 0) {
            packet->stream_index = lane.outIndex;
            av_packet_rescale_ts(packet, lane.encoder->time_base, streamBase);
            if ((err = av_interleaved_write_frame(p->output.get(), packet)) < 0)
                return fail(QStringLiteral("muxing: %1").arg(errorString(err)));
        }
        return err == AVERROR(EAGAIN) || err == AVERROR_EOF || fail(QStringLiteral("encoding: %1").arg(errorString(err)));
    }

    void report(int64_t ptsInEncoderBase)
    {
        if (p->durationUs <= 0 || !progress)
            return;
        const int64_t doneUs = av_rescale_q(ptsInEncoderBase, p->lanes.front()->encoder->time_base, AV_TIME_BASE_Q);
        const int64_t startUs = p->input->start_time == AV_NOPTS_VALUE ? 0 : p->input->start_time;
        // 99 at most until the file is complete: 100 means written.
        const int percent = int(std::clamp<int64_t>((doneUs - startUs) * 100 / p->durationUs, 0, 99));
        if (percent > lastProgress) {
            lastProgress = percent;
            progress(percent);
        }
    }

    VXResult<TranscodeResult> end(TranscodeResult outcome)
    {
        if (cancel.isCancelled())
            return VXCancelledError();
        if (failed)
            return VXError::because(failure);
        return outcome;
    }
};

} // namespace

VXResult<TranscodeResult> transcode(const TranscodeRequest &request, std::unique_ptr<Pipeline> &pipeline,
                                    const VXCancel &cancel, const std::function<void(int percent)> &progress)
{
    Run run(request, cancel, progress);
    TranscodeResult outcome;
    if (cancel.isCancelled() || !run.prepare(pipeline))
        return run.end(outcome);
    Pipeline &p = *run.p;
    AVFormatContext *out = p.output.get();
    int err = avformat_write_header(out, nullptr);
    if (err < 0 && !run.fail(QStringLiteral("writing the header: %1").arg(errorString(err))))
        return run.end(outcome);

    auto packet = makePacket();
    if (!packet && !run.fail(QStringLiteral("out of memory")))
        return run.end(outcome);
    std::thread writer([&run] { run.write(); });
    bool ok = true;
    while (ok && !run.stopping() && (err = av_read_frame(p.input.get(), packet.get())) >= 0) {
        const size_t index = size_t(packet->stream_index);
        if (const int lane = p.laneOf[index]; lane >= 0)
            ok = run.decode(size_t(lane), packet.get());
        else if (p.streamMap[index] >= 0)
            ok = run.copy(packet.get());
        av_packet_unref(packet.get());
    }
    if (ok && !run.stopping()) {
        // A read error mid-file is treated like its end, as players do; what
        // was decoded so far is kept.
        if (err != AVERROR_EOF)
            VXLog(QStringLiteral("Reading %1 stopped early: %2").arg(request.input, errorString(err)));
        // What the decoders and graphs still hold; the encoders' once the
        // writer has ended.
        for (size_t l = 0; ok && l < p.lanes.size(); ++l)
            ok = run.decode(l, nullptr) && av_buffersrc_add_frame_flags(p.lanes[l]->source, nullptr, 0) >= 0
                && run.filter(l, true);
    }
    // The writer takes what is left in the queue, then ends.
    av_thread_message_queue_set_err_recv(run.queue.get(), AVERROR_EOF);
    writer.join();
    for (size_t l = 0; ok && !run.stopping() && l < p.lanes.size(); ++l)
        ok = run.encode(l, nullptr);
    if (!ok && !run.stopping())
        run.fail(QStringLiteral("reading"));
    if (run.stopping())
        return run.end(outcome);

    if ((err = av_write_trailer(out)) < 0 && !run.fail(QStringLiteral("writing the trailer: %1").arg(errorString(err))))
        return run.end(outcome);
    // Closed before the end: the caller moves the file next.
    if (!(out->oformat->flags & AVFMT_NOFILE))
        avio_closep(&out->pb);
    if (run.lastProgress < 100 && progress)
        progress(100);

    if (run.lanes[0].meter)
        outcome.input = run.lanes[0].meter->finish();
    for (size_t l = 1; l < run.lanes.size(); ++l)
        if (run.lanes[l].meter)
            outcome.otherAudio[p.lanes[l]->inIndex] = run.lanes[l].meter->finish();
    if (request.measureOutput >= 0 && !cancel.isCancelled()) {
        // Here, whatever backend the program uses: this runs in process.
        const auto measured = inProcessBackend().measure(request.output, request.measureOutput, nullptr, {});
        if (measured)
            outcome.output = measured->loudness;
        else
            run.fail(QStringLiteral("cannot measure the result: %1").arg(measured.reason()));
    }
    return run.end(outcome);
}

void configureProcess()
{
    // Every pass allocates and frees buffers of several MB (loudnorm's
    // three-second windows at 192 kHz). glibc's sliding mmap threshold would
    // soon serve those from the heap, which never shrinks: two jobs then held
    // about 35 MB more at their peak. A fixed threshold keeps them mapped and
    // returned on release.
    mallopt(M_MMAP_THRESHOLD, 64 * 1024);
    mallopt(M_TRIM_THRESHOLD, 128 * 1024);
}

} // namespace vx

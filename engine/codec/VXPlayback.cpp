// Decoding for listening, in this process: demux, decode, line up on the
// asked position, filter, convert to floats, hand over. The shape of the
// measuring loop (VXMeasure.cpp), with a filter graph and no meter.

#include "engine/codec/VXPlayback.h"

#include "engine/codec/VXFilter.h"
#include "engine/codec/VXFilterPrivate.h"
#include "engine/codec/VXLibav.h"
#include "engine/codec/VXPipeline.h"
#include "engine/codec/VXProbe.h"
#include "engine/codec/VXWorkerProtocol.h"

extern "C" {
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavutil/samplefmt.h>
}

namespace vx {
namespace {

VXError libavError(const char *what, int err)
{
    return VXError::because(QStringLiteral("%1: %2").arg(QLatin1String(what), errorString(err)), err);
}

// An empty frame of samples in frame's format, rate and layout.
FramePtr frameLike(const AVFrame *frame, int samples)
{
    FramePtr made = makeFrame();
    if (!made)
        return nullptr;
    made->format = frame->format;
    made->sample_rate = frame->sample_rate;
    made->nb_samples = samples;
    if (av_channel_layout_copy(&made->ch_layout, &frame->ch_layout) < 0 || av_frame_get_buffer(made.get(), 0) < 0)
        return nullptr;
    return made;
}

// A frame's samples from offset on, in a frame of their own.
FramePtr tail(const AVFrame *frame, int offset)
{
    FramePtr cut = frameLike(frame, frame->nb_samples - offset);
    if (cut)
        av_samples_copy(cut->extended_data, frame->extended_data, 0, offset, cut->nb_samples,
                        frame->ch_layout.nb_channels, AVSampleFormat(frame->format));
    return cut;
}

// Silence in a frame's format.
FramePtr silenceLike(const AVFrame *frame, int64_t samples)
{
    FramePtr gap = frameLike(frame, int(samples));
    if (gap)
        av_samples_set_silence(gap->extended_data, 0, gap->nb_samples, gap->ch_layout.nb_channels,
                               AVSampleFormat(gap->format));
    return gap;
}

class Player {
public:
    Player(const PlayRequest &request, const VXCancel &cancel, const PcmSink &sink)
        : m_request(request), m_cancel(cancel), m_sink(sink) {}
    ~Player() { av_channel_layout_uninit(&m_layout); }

    VXResult<> open();
    VXResult<> run();

private:
    void seek();
    VXResult<> decoded(AVFrame *frame);
    VXResult<> lineUp(AVFrame *frame);
    VXResult<> push(AVFrame *frame);
    VXResult<> buildGraph(const AVFrame *frame);
    VXResult<> pull();
    VXResult<> endGraph();

    const PlayRequest &m_request;
    const VXCancel &m_cancel;
    const PcmSink &m_sink;
    InputPtr m_input;
    int m_index = -1;
    int64_t m_start = 0;  // the stream's first time stamp, in its time base
    CodecPtr m_decoder;
    FramePtr m_out = makeFrame();
    GraphPtr m_graph;
    AVFilterContext *m_source = nullptr;
    AVFilterContext *m_sinkCtx = nullptr;
    // What the graph's source was made for.
    int m_rate = 0;
    int m_format = -1;
    AVChannelLayout m_layout{};
    // Samples at the input's rate: the first one wanted, and the next one
    // the graph takes; both from the start of the audio.
    int64_t m_first = 0;
    int64_t m_next = 0;
    bool m_started = false;  // the first wanted sample has gone into the graph
    bool m_refused = false;  // the sink wants no more
};

VXResult<> Player::open()
{
    QString why;
    int code = 0;
    m_input = openInput(m_request.input, &why, &code);
    if (!m_input)
        return VXError::because(why, code);
    m_index = av_find_best_stream(m_input.get(), AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
    if (m_index < 0)
        return VXError::because(QStringLiteral("no decodable audio stream"));
    AVStream *st = m_input->streams[m_index];
    const AVCodec *codec = avcodec_find_decoder(st->codecpar->codec_id);
    m_decoder.reset(codec ? avcodec_alloc_context3(codec) : nullptr);
    if (!m_decoder || avcodec_parameters_to_context(m_decoder.get(), st->codecpar) < 0)
        return VXError::because(QStringLiteral("cannot decode %1").arg(avcodec_get_name(st->codecpar->codec_id)));
    m_decoder->pkt_timebase = st->time_base;
    if (const int err = avcodec_open2(m_decoder.get(), codec, nullptr); err < 0)
        return libavError("decoder", err);
    for (unsigned i = 0; i < m_input->nb_streams; ++i)
        m_input->streams[i]->discard = int(i) == m_index ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
    m_start = st->start_time != AV_NOPTS_VALUE ? st->start_time : 0;
    m_first = m_next = av_rescale(std::max<qint64>(m_request.fromUs, 0), std::max(m_decoder->sample_rate, 1), 1000000);
    seek();
    return {};
}

// Near the position: the frames before it are cut off as they come. Where
// the demuxer cannot seek, the file is read from its start instead.
void Player::seek()
{
    if (m_request.fromUs <= 0)
        return;
    const AVStream *st = m_input->streams[m_index];
    const int64_t at = m_start + av_rescale_q(m_request.fromUs, AV_TIME_BASE_Q, st->time_base);
    if (avformat_seek_file(m_input.get(), m_index, INT64_MIN, at, at, 0) < 0)
        av_seek_frame(m_input.get(), m_index, at, AVSEEK_FLAG_BACKWARD);
}

VXResult<> Player::run()
{
    PacketPtr packet = makePacket();
    FramePtr frame = makeFrame();
    if (!packet || !frame || !m_out)
        return VXError::because(QStringLiteral("out of memory"));
    // A read error ends the sound where it happens, as a player does.
    while (!m_refused && av_read_frame(m_input.get(), packet.get()) >= 0) {
        if (m_cancel.isCancelled())
            return VXCancelledError();
        if (packet->stream_index == m_index)
            avcodec_send_packet(m_decoder.get(), packet.get());  // a corrupt packet is skipped
        av_packet_unref(packet.get());
        if (VXResult<> taken = decoded(frame.get()); !taken)
            return taken;
    }
    if (m_refused)
        return {};
    avcodec_send_packet(m_decoder.get(), nullptr);
    if (VXResult<> taken = decoded(frame.get()); !taken)
        return taken;
    return endGraph();
}

VXResult<> Player::decoded(AVFrame *frame)
{
    int err;
    while (!m_refused
           && ((err = avcodec_receive_frame(m_decoder.get(), frame)) >= 0 || err == AVERROR_INVALIDDATA)) {
        if (err < 0)
            continue;
        const VXResult<> taken = lineUp(frame);
        av_frame_unref(frame);
        if (!taken)
            return taken;
    }
    return {};
}

// Until the first wanted sample has gone in, frames are placed by their
// time stamps: what comes before it is cut off, a late start is preceded by
// silence. From then on the frames follow one another as decoded.
VXResult<> Player::lineUp(AVFrame *frame)
{
    if (m_started)
        return push(frame);
    const int64_t pts = frame->best_effort_timestamp;
    const int64_t at = pts == AV_NOPTS_VALUE
        ? m_next
        : av_rescale_q(pts - m_start, m_input->streams[m_index]->time_base, AVRational{1, frame->sample_rate});
    if (at + frame->nb_samples <= m_first)
        return {};
    if (at < m_first) {
        FramePtr cut = tail(frame, int(m_first - at));
        return cut ? push(cut.get()) : VXError::because(QStringLiteral("out of memory"));
    }
    if (at > m_first) {
        FramePtr gap = silenceLike(frame, at - m_first);
        if (!gap)
            return VXError::because(QStringLiteral("out of memory"));
        if (VXResult<> pushed = push(gap.get()); !pushed)
            return pushed;
    }
    return push(frame);
}

VXResult<> Player::push(AVFrame *frame)
{
    const bool sameFormat = m_graph && frame->sample_rate == m_rate && frame->format == m_format
        && !av_channel_layout_compare(&frame->ch_layout, &m_layout);
    if (!sameFormat) {
        // A format change mid-stream is normal input: what the old graph
        // holds is heard, then a graph for the new format takes over.
        if (VXResult<> ended = endGraph(); !ended)
            return ended;
        if (VXResult<> built = buildGraph(frame); !built)
            return built;
    }
    m_started = true;
    frame->pts = m_next - m_first;
    m_next += frame->nb_samples;
    if (const int err = av_buffersrc_write_frame(m_source, frame); err < 0)
        return libavError("filter graph", err);
    return pull();
}

VXResult<> Player::buildGraph(const AVFrame *frame)
{
    m_graph.reset(avfilter_graph_alloc());
    AVFilterGraph *graph = m_graph.get();
    if (!graph)
        return VXError::because(QStringLiteral("out of memory"));
    av_channel_layout_uninit(&m_layout);
    if (frame->ch_layout.order == AV_CHANNEL_ORDER_UNSPEC)
        av_channel_layout_default(&m_layout, frame->ch_layout.nb_channels);
    else
        av_channel_layout_copy(&m_layout, &frame->ch_layout);
    m_rate = frame->sample_rate;
    m_format = frame->format;
    char layout[128] = {};
    av_channel_layout_describe(&m_layout, layout, sizeof layout);
    const QByteArray sourceArgs = QStringLiteral("time_base=1/%1:sample_rate=%1:sample_fmt=%2:channel_layout=%3")
                                      .arg(m_rate).arg(av_get_sample_fmt_name(AVSampleFormat(m_format)), layout)
                                      .toUtf8();
    int err = avfilter_graph_create_filter(&m_source, avfilter_get_by_name("abuffer"), "in", sourceArgs.constData(),
                                           nullptr, graph);
    if (err < 0)
        return libavError("abuffer", err);
    // Integer samples wider than 16 bits keep their depth through a gain, as in a job.
    const AVSampleFormat packed = av_get_packed_sample_fmt(AVSampleFormat(m_format));
    const bool highPrecision = packed == AV_SAMPLE_FMT_S32 || packed == AV_SAMPLE_FMT_S64 || packed == AV_SAMPLE_FMT_DBL;
    AVFilterContext *last = m_source;
    for (size_t i = 0; i < m_request.filters.size(); ++i) {
        const QByteArray name = "vxfilter" + QByteArray::number(qulonglong(i));
        const VXResult<AVFilterContext *> made = VXFilterAccess::instantiate(*m_request.filters[i], graph, last,
                                                                             m_rate, highPrecision, name.constData());
        if (!made)
            return made.error();
        last = *made;
    }
    const int outRate = m_request.sampleRate > 0 ? m_request.sampleRate : m_rate;
    const int outChannels = m_request.channels > 0 ? m_request.channels : m_layout.nb_channels;
    AVChannelLayout outLayout{};
    av_channel_layout_default(&outLayout, outChannels);
    if (m_request.channels <= 0)
        av_channel_layout_copy(&outLayout, &m_layout);
    char outName[128] = {};
    av_channel_layout_describe(&outLayout, outName, sizeof outName);
    av_channel_layout_uninit(&outLayout);
    // A mono file on two speakers sounds alike on both, at its own level
    // (the resampler's upmix would lower each side by 3 dB).
    const QByteArray upmix = m_layout.nb_channels == 1 && outChannels == 2 ? "pan=stereo|c0=c0|c1=c0," : "";
    const QByteArray description = upmix + "aresample=" + graphEscaped("out_sample_rate=" + QByteArray::number(outRate)
                                                                        + ":resampler=soxr")
        + ",aformat=" + graphEscaped("sample_fmts=flt:sample_rates=" + QByteArray::number(outRate)
                                     + ":channel_layouts=" + outName);
    err = avfilter_graph_create_filter(&m_sinkCtx, avfilter_get_by_name("abuffersink"), "out", nullptr, nullptr, graph);
    if (err >= 0)
        err = linkGraphTail(graph, description, last, m_sinkCtx);
    if (err >= 0)
        err = avfilter_graph_config(graph, nullptr);
    return err < 0 ? libavError("filter graph", err) : VXResult<>();
}

VXResult<> Player::pull()
{
    int err = 0;
    while (!m_refused && (err = av_buffersink_get_frame(m_sinkCtx, m_out.get())) >= 0) {
        const PcmFormat format{m_out->sample_rate, m_out->ch_layout.nb_channels};
        m_refused = !m_sink(format, reinterpret_cast<const float *>(m_out->data[0]), m_out->nb_samples);
        av_frame_unref(m_out.get());
        if (m_cancel.isCancelled())
            return VXCancelledError();
    }
    return m_refused || err == AVERROR(EAGAIN) || err == AVERROR_EOF ? VXResult<>() : libavError("filter graph", err);
}

// The graph's last samples (a resampler's and a limiter's tails) go out.
VXResult<> Player::endGraph()
{
    if (!m_graph)
        return {};
    if (const int err = av_buffersrc_write_frame(m_source, nullptr); err < 0)
        return libavError("filter graph", err);
    VXResult<> pulled = pull();
    m_graph.reset();
    m_source = m_sinkCtx = nullptr;
    return pulled;
}

} // namespace

VXResult<> playHere(const PlayRequest &request, const VXCancel &cancel, const PcmSink &sink)
{
    Player player(request, cancel, sink);
    if (VXResult<> opened = player.open(); !opened)
        return opened;
    return player.run();
}

QStringList playCommand(const PlayRequest &request)
{
    QStringList args{QStringLiteral("play"), request.input, QStringLiteral("--from"), QString::number(request.fromUs)};
    if (request.sampleRate > 0)
        args << QStringLiteral("--rate") << QString::number(request.sampleRate);
    if (request.channels > 0)
        args << QStringLiteral("--channels") << QString::number(request.channels);
    return args + filterArguments(request.filters);
}

bool parsePlayCommand(const QStringList &args, PlayRequest *request)
{
    if (args.isEmpty())
        return false;
    request->input = args[0];
    for (qsizetype i = 1; i + 1 < args.size(); i += 2) {
        const QString &option = args[i];
        const QString &value = args[i + 1];
        if (option == QLatin1String("--from"))
            request->fromUs = value.toLongLong();
        else if (option == QLatin1String("--rate"))
            request->sampleRate = std::clamp(value.toInt(), 0, 768000);
        else if (option == QLatin1String("--channels"))
            request->channels = std::clamp(value.toInt(), 0, 16);
        else if (!readFilterOption(option, value, request->filters))
            return false;
    }
    return true;
}

} // namespace vx

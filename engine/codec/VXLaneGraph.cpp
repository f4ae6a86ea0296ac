#include "engine/codec/VXPipeline.h"

#include "engine/codec/VXFilterPrivate.h"

extern "C" {
#include <libavfilter/buffersink.h>
#include <libavutil/avstring.h>
}

// Each lane's filter graph: the decoder's audio through the given filters and
// back to what the encoder takes. The given filters are instantiated one by
// one (their options are checked and may turn into chains of their own); the
// fixed tail is one graph description.

namespace vx {

namespace {

// From the decoder's output to the graph's source; the source's format is
// kept on the lane, to spot frames that differ from it later.
VXResult<> createSource(Lane &lane, const AVStream *ist, AVFilterGraph *graph)
{
    const AVCodecContext *decoder = lane.decoder.get();
    AVChannelLayout inLayout{};
    if (decoder->ch_layout.order == AV_CHANNEL_ORDER_UNSPEC)
        av_channel_layout_default(&inLayout, decoder->ch_layout.nb_channels);
    else
        av_channel_layout_copy(&inLayout, &decoder->ch_layout);
    char layout[128] = {};
    av_channel_layout_describe(&inLayout, layout, sizeof layout);
    av_channel_layout_uninit(&lane.sourceLayout);
    lane.sourceLayout = inLayout;
    lane.sourceRate = decoder->sample_rate;
    lane.sourceFormat = decoder->sample_fmt;
    const QByteArray sourceArgs = QStringLiteral("time_base=%1/%2:sample_rate=%3:sample_fmt=%4:channel_layout=%5")
                                      .arg(ist->time_base.num).arg(ist->time_base.den).arg(decoder->sample_rate)
                                      .arg(av_get_sample_fmt_name(decoder->sample_fmt), layout).toUtf8();
    const int err = avfilter_graph_create_filter(&lane.source, avfilter_get_by_name("abuffer"), "in",
                                                 sourceArgs.constData(), nullptr, graph);
    if (err < 0)
        return VXError::because(QStringLiteral("abuffer: %1").arg(errorString(err)));
    return {};
}

// Back to what the encoder takes, as a graph description. soxr's default
// 20-bit precision is transparent for 16-bit and lossy targets; 16-bit ones
// get dither on the way down, and deeper integer targets a 28-bit
// double-precision path. After filters, loudnorm hands over its last three
// seconds at 192 kHz as one frame: it is cut up before the resampler, which
// would otherwise hold several copies of it at once (tens of MB per job at
// the end of a pass).
QByteArray tailDescription(const AVCodecContext *encoder, bool filtered)
{
    char outLayout[128] = {};
    av_channel_layout_describe(&encoder->ch_layout, outLayout, sizeof outLayout);
    const AVSampleFormat fmt = encoder->sample_fmt;
    const bool dither = av_get_bytes_per_sample(fmt) <= 2;
    const AVSampleFormat packed = av_get_packed_sample_fmt(fmt);
    const bool deep = packed == AV_SAMPLE_FMT_S32 || packed == AV_SAMPLE_FMT_S64 || packed == AV_SAMPLE_FMT_DBL;
    const QByteArray resampleArgs = QStringLiteral("out_sample_rate=%1:resampler=soxr%2")
                                        .arg(encoder->sample_rate)
                                        .arg(dither ? ":dither_method=triangular"
                                             : deep ? ":precision=28:internal_sample_fmt=dblp"
                                                    : "").toUtf8();
    const QByteArray formatArgs = QStringLiteral("sample_fmts=%1:sample_rates=%2:channel_layouts=%3")
                                      .arg(av_get_sample_fmt_name(fmt)).arg(encoder->sample_rate).arg(outLayout).toUtf8();
    return QByteArray(filtered ? "asetnsamples=n=4096:p=0," : "") + "aresample=" + graphEscaped(resampleArgs)
        + ",aformat=" + graphEscaped(formatArgs);
}

} // namespace

// Filter arguments written into a graph description: the graph's parser
// takes one level of quoting off before the filter reads its options, so
// what each filter is given stays what it was.
QByteArray graphEscaped(const QByteArray &args)
{
    char *escaped = nullptr;
    if (av_escape(&escaped, args.constData(), "[],;", AV_ESCAPE_MODE_BACKSLASH, 0) < 0)
        return args;
    const QByteArray text(escaped);
    av_free(escaped);
    return text;
}

// The description's chain between the graph's last filter so far and the sink.
int linkGraphTail(AVFilterGraph *graph, const QByteArray &description, AVFilterContext *last, AVFilterContext *sink)
{
    AVFilterInOut *from = avfilter_inout_alloc();  // what the chain reads: last's output
    AVFilterInOut *to = avfilter_inout_alloc();    // what it feeds: the sink's input
    int err = AVERROR(ENOMEM);
    if (from && to) {
        from->name = av_strdup("in");
        from->filter_ctx = last;
        to->name = av_strdup("out");
        to->filter_ctx = sink;
        err = avfilter_graph_parse_ptr(graph, ("[in]" + description + "[out]").constData(), &to, &from, nullptr);
    }
    avfilter_inout_free(&from);
    avfilter_inout_free(&to);
    return err;
}

VXResult<> Pipeline::buildGraph(Lane &lane, const std::vector<std::shared_ptr<VXFilter>> &filters)
{
    lane.graph.reset(avfilter_graph_alloc());
    AVFilterGraph *graph = lane.graph.get();
    if (!graph)
        return VXError::because(QStringLiteral("out of memory"));
    if (VXResult<> source = createSource(lane, input->streams[lane.inIndex], graph); !source)
        return source;
    const AVCodecContext *decoder = lane.decoder.get();
    // Integer samples wider than 16 bits keep their depth through a gain.
    const AVSampleFormat decoded = av_get_packed_sample_fmt(decoder->sample_fmt);
    const bool highPrecision = decoded == AV_SAMPLE_FMT_S32 || decoded == AV_SAMPLE_FMT_S64
        || decoded == AV_SAMPLE_FMT_DBL;
    AVFilterContext *last = lane.source;
    for (size_t i = 0; i < filters.size(); ++i) {
        const QByteArray name = "vxfilter" + QByteArray::number(qulonglong(i));
        const VXResult<AVFilterContext *> made = VXFilterAccess::instantiate(*filters[i], graph, last,
                                                                             decoder->sample_rate, highPrecision,
                                                                             name.constData());
        if (!made)
            return made.error();
        AVFilterContext *ctx = *made;
        auto state = VXFilterAccess::logState(*filters[i]);
        state->clearPending();
        registerLogContext(ctx, state);
        routedLogs.emplace_back(ctx, std::move(state));
        last = ctx;
    }
    const AVCodecContext *encoder = lane.encoder.get();
    int err = avfilter_graph_create_filter(&lane.sink, avfilter_get_by_name("abuffersink"), "out", nullptr, nullptr,
                                           graph);
    if (err >= 0)
        err = linkGraphTail(graph, tailDescription(encoder, !filters.empty()), last, lane.sink);
    if (err >= 0)
        err = avfilter_graph_config(graph, nullptr);
    if (err < 0)
        return VXError::because(QStringLiteral("filter graph: %1").arg(errorString(err)));
    if (encoder->frame_size > 0 && !(encoder->codec->capabilities & AV_CODEC_CAP_VARIABLE_FRAME_SIZE))
        av_buffersink_set_frame_size(lane.sink, unsigned(encoder->frame_size));
    return {};
}

void Pipeline::releaseGraph()
{
    for (const auto &lane : lanes) {
        lane->graph.reset();
        lane->source = lane->sink = nullptr;
    }
    for (const auto &[ctx, state] : routedLogs)
        unregisterLogContext(ctx, state.get());
    routedLogs.clear();
}

bool Lane::matchesSource(const AVFrame *frame) const
{
    if (frame->sample_rate != sourceRate || frame->format != sourceFormat
        || frame->ch_layout.nb_channels != sourceLayout.nb_channels)
        return false;
    return frame->ch_layout.order == AV_CHANNEL_ORDER_UNSPEC || !av_channel_layout_compare(&frame->ch_layout, &sourceLayout);
}

} // namespace vx

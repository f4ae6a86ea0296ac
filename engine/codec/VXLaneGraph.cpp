#include "engine/codec/VXPipeline.h"

#include "engine/codec/VXFilterPrivate.h"

extern "C" {
#include <libavfilter/buffersink.h>
}

// Each lane's filter graph: the decoder's audio through the given filters and
// back to what the encoder takes.

namespace vx {

bool Pipeline::buildGraph(Lane &lane, const std::vector<std::shared_ptr<VXFilter>> &filters, QString *why)
{
    lane.graph.reset(avfilter_graph_alloc());
    AVFilterGraph *graph = lane.graph.get();
    if (!graph) {
        *why = QStringLiteral("out of memory");
        return false;
    }
    const AVCodecContext *decoder = lane.decoder.get();
    const AVCodecContext *encoder = lane.encoder.get();
    AVChannelLayout &sourceLayout = lane.sourceLayout;
    AVFilterContext *&source = lane.source;
    AVFilterContext *&sink = lane.sink;
    const AVStream *ist = input->streams[lane.inIndex];
    AVChannelLayout inLayout{};
    if (decoder->ch_layout.order == AV_CHANNEL_ORDER_UNSPEC)
        av_channel_layout_default(&inLayout, decoder->ch_layout.nb_channels);
    else
        av_channel_layout_copy(&inLayout, &decoder->ch_layout);
    char layout[128] = {};
    av_channel_layout_describe(&inLayout, layout, sizeof layout);
    av_channel_layout_uninit(&sourceLayout);
    sourceLayout = inLayout;
    lane.sourceRate = decoder->sample_rate;
    lane.sourceFormat = decoder->sample_fmt;
    const QByteArray sourceArgs = QStringLiteral("time_base=%1/%2:sample_rate=%3:sample_fmt=%4:channel_layout=%5")
                                      .arg(ist->time_base.num).arg(ist->time_base.den).arg(decoder->sample_rate)
                                      .arg(av_get_sample_fmt_name(decoder->sample_fmt), layout).toUtf8();
    int err = avfilter_graph_create_filter(&source, avfilter_get_by_name("abuffer"), "in", sourceArgs.constData(),
                                           nullptr, graph);
    if (err < 0) {
        *why = QStringLiteral("abuffer: %1").arg(errorString(err));
        return false;
    }

    // Integer samples wider than 16 bits keep their depth through a gain.
    const AVSampleFormat decoded = av_get_packed_sample_fmt(decoder->sample_fmt);
    const bool highPrecision = decoded == AV_SAMPLE_FMT_S32 || decoded == AV_SAMPLE_FMT_S64
        || decoded == AV_SAMPLE_FMT_DBL;
    AVFilterContext *last = source;
    for (size_t i = 0; i < filters.size(); ++i) {
        const QByteArray name = "vxfilter" + QByteArray::number(qulonglong(i));
        AVFilterContext *ctx = VXFilterAccess::instantiate(*filters[i], graph, last, decoder->sample_rate,
                                                           highPrecision, name.constData(), why);
        if (!ctx)
            return false;
        auto state = VXFilterAccess::logState(*filters[i]);
        state->clearPending();
        registerLogContext(ctx, state);
        routedLogs.emplace_back(ctx, std::move(state));
        last = ctx;
    }
    if (!filters.empty()) {
        // loudnorm hands over its last three seconds at 192 kHz as one frame;
        // cut it up before the resampler, which would otherwise hold several
        // copies of it at once (tens of MB per job at the end of a pass).
        AVFilterContext *split = nullptr;
        if ((err = avfilter_graph_create_filter(&split, avfilter_get_by_name("asetnsamples"), "split",
                                                "n=4096:p=0", nullptr, graph)) < 0
            || (err = avfilter_link(last, 0, split, 0)) < 0) {
            *why = QStringLiteral("asetnsamples: %1").arg(errorString(err));
            return false;
        }
        last = split;
    }

    // Back to what the encoder takes. soxr's default 20-bit precision is
    // transparent for 16-bit and lossy targets; 16-bit ones get dither on the
    // way down, and deeper integer targets a 28-bit double-precision path.
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
    AVFilterContext *resample = nullptr;
    AVFilterContext *format = nullptr;
    if ((err = avfilter_graph_create_filter(&resample, avfilter_get_by_name("aresample"), "resample",
                                            resampleArgs.constData(), nullptr, graph)) < 0
        || (err = avfilter_graph_create_filter(&format, avfilter_get_by_name("aformat"), "format",
                                               formatArgs.constData(), nullptr, graph)) < 0
        || (err = avfilter_graph_create_filter(&sink, avfilter_get_by_name("abuffersink"), "out", nullptr, nullptr,
                                               graph)) < 0
        || (err = avfilter_link(last, 0, resample, 0)) < 0 || (err = avfilter_link(resample, 0, format, 0)) < 0
        || (err = avfilter_link(format, 0, sink, 0)) < 0 || (err = avfilter_graph_config(graph, nullptr)) < 0) {
        *why = QStringLiteral("filter graph: %1").arg(errorString(err));
        return false;
    }
    if (encoder->frame_size > 0 && !(encoder->codec->capabilities & AV_CODEC_CAP_VARIABLE_FRAME_SIZE))
        av_buffersink_set_frame_size(sink, unsigned(encoder->frame_size));
    return true;
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

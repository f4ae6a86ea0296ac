#pragma once

// Small owners for libav objects, shared by the codec layer's sources only.

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavfilter/avfilter.h>
#include <libavformat/avformat.h>
#include <libavutil/frame.h>
#include <libswresample/swresample.h>
}

#include <QString>
#include <memory>

namespace vx {

struct InputCloser {
    void operator()(AVFormatContext *ctx) const { avformat_close_input(&ctx); }
};
using InputPtr = std::unique_ptr<AVFormatContext, InputCloser>;

// Closes the output's I/O (when the muxer opened one) and frees the context.
struct OutputCloser {
    void operator()(AVFormatContext *ctx) const
    {
        if (ctx && ctx->oformat && !(ctx->oformat->flags & AVFMT_NOFILE))
            avio_closep(&ctx->pb);
        avformat_free_context(ctx);
    }
};
using OutputPtr = std::unique_ptr<AVFormatContext, OutputCloser>;

struct CodecFreer {
    void operator()(AVCodecContext *ctx) const { avcodec_free_context(&ctx); }
};
using CodecPtr = std::unique_ptr<AVCodecContext, CodecFreer>;

struct FrameFreer {
    void operator()(AVFrame *f) const { av_frame_free(&f); }
};
using FramePtr = std::unique_ptr<AVFrame, FrameFreer>;

struct PacketFreer {
    void operator()(AVPacket *p) const { av_packet_free(&p); }
};
using PacketPtr = std::unique_ptr<AVPacket, PacketFreer>;

struct SwrFreer {
    void operator()(SwrContext *s) const { swr_free(&s); }
};
using SwrPtr = std::unique_ptr<SwrContext, SwrFreer>;

struct GraphFreer {
    void operator()(AVFilterGraph *g) const { avfilter_graph_free(&g); }
};
using GraphPtr = std::unique_ptr<AVFilterGraph, GraphFreer>;

inline FramePtr makeFrame() { return FramePtr(av_frame_alloc()); }
inline PacketPtr makePacket() { return PacketPtr(av_packet_alloc()); }

// av_err2str needs a compound literal; this keeps the buffer on our stack.
inline QString errorString(int err)
{
    char buf[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(err, buf, sizeof buf);
    return QString::fromUtf8(buf);
}

// Installs the process's libav log routing once (see VXFilterLog.cpp).
void installLogRouting();

} // namespace vx

#include "engine/codec/VXEncoderChoice.h"

#include <QFileInfo>
#include <algorithm>
#include <cmath>
#include <cstdlib>

// What the re-encoded audio is written with: the input's codec, and as much
// of its depth, rate, layout and bit rate as the encoder takes.

namespace vx {
namespace {

template <typename T>
void clampSamples(T *data, size_t count)
{
    for (size_t i = 0; i < count; ++i)
        data[i] = std::isnan(data[i]) ? T(0) : std::clamp(data[i], T(-1), T(1));
}

} // namespace

const AVCodec *findEncoder(AVCodecID id)
{
    // The external encoders are the good ones for these; FFmpeg's own are
    // experimental (vorbis, opus) or absent (mp3).
    const char *preferred = nullptr;
    switch (id) {
    case AV_CODEC_ID_MP3: preferred = "libmp3lame"; break;
    case AV_CODEC_ID_VORBIS: preferred = "libvorbis"; break;
    case AV_CODEC_ID_OPUS: preferred = "libopus"; break;
    default: break;
    }
    if (preferred)
        if (const AVCodec *codec = avcodec_find_encoder_by_name(preferred))
            return codec;
    return avcodec_find_encoder(id);
}

// The decoder's own format when the encoder takes it (keeps depth and
// precision), else its planar/packed twin, else the encoder's first choice.
AVSampleFormat chooseSampleFormat(const AVCodec *encoder, AVSampleFormat decoded)
{
    const AVSampleFormat *formats = encoder->sample_fmts;
    if (!formats)
        return decoded;
    const AVSampleFormat twins[] = {decoded, av_get_alt_sample_fmt(decoded, 1), av_get_alt_sample_fmt(decoded, 0)};
    for (AVSampleFormat want : twins)
        for (const AVSampleFormat *f = formats; *f != AV_SAMPLE_FMT_NONE; ++f)
            if (*f == want)
                return want;
    return formats[0];
}

int chooseSampleRate(const AVCodec *encoder, int rate)
{
    const int *rates = encoder->supported_samplerates;
    if (!rates)
        return rate;
    int best = rates[0];
    for (const int *r = rates; *r; ++r) {
        if (*r == rate)
            return rate;
        if (std::abs(*r - rate) < std::abs(best - rate))
            best = *r;
    }
    return best;
}

bool chooseLayout(const AVCodec *encoder, const AVChannelLayout &decoded, AVChannelLayout *out)
{
    AVChannelLayout wanted{};
    if (decoded.order == AV_CHANNEL_ORDER_UNSPEC || decoded.order == AV_CHANNEL_ORDER_CUSTOM)
        av_channel_layout_default(&wanted, decoded.nb_channels);
    else
        av_channel_layout_copy(&wanted, &decoded);
    if (!encoder->ch_layouts) {
        *out = wanted;
        return true;
    }
    const AVChannelLayout *fallback = nullptr;
    for (const AVChannelLayout *l = encoder->ch_layouts; l->nb_channels; ++l) {
        if (!av_channel_layout_compare(l, &wanted)) {
            *out = wanted;
            return true;
        }
        if (!fallback && l->nb_channels == wanted.nb_channels)
            fallback = l;
    }
    av_channel_layout_uninit(&wanted);
    return fallback && av_channel_layout_copy(out, fallback) >= 0;
}

bool isLossless(AVCodecID id)
{
    const AVCodecDescriptor *desc = avcodec_descriptor_get(id);
    return desc && (desc->props & AV_CODEC_PROP_LOSSLESS);
}

// Lossy streams keep their bit rate; where the container does not state it
// (Ogg Opus), the audio's share of the file tells it.
int64_t chooseBitRate(const AVFormatContext *input, int audioIndex, const QString &inPath, int64_t durationUs)
{
    const AVStream *st = input->streams[audioIndex];
    if (st->codecpar->bit_rate > 0)
        return st->codecpar->bit_rate;
    if (durationUs <= 0)
        return 0;
    qint64 bytes = QFileInfo(inPath).size();
    for (unsigned i = 0; i < input->nb_streams; ++i)
        if (input->streams[i]->disposition & AV_DISPOSITION_ATTACHED_PIC)
            bytes -= input->streams[i]->attached_pic.size;
    const int64_t estimate = av_rescale(std::max<qint64>(bytes, 0) * 8, AV_TIME_BASE, durationUs);
    return std::clamp<int64_t>(estimate, 16000, 640000);
}

void clampToFullScale(AVFrame *frame)
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

} // namespace vx

#include "engine/codec/VXPipeline.h"

#include "engine/codec/VXFilterPrivate.h"
#include "engine/codec/VXLog.h"
#include "engine/codec/VXProbe.h"

extern "C" {
#include <libavfilter/buffersink.h>
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
}

#include <QFile>
#include <QFileInfo>
#include <QList>
#include <QtEndian>
#include <cstring>

namespace vx {
namespace {

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

bool carriesPictures(const AVOutputFormat *format)
{
    for (const char *name : {"mp3", "flac", "mp4", "ipod", "mov"})
        if (!std::strcmp(format->name, name))
            return true;
    return false;
}

bool carriesVideo(const AVOutputFormat *format)
{
    for (const char *name : {"mp4", "ipod", "mov"})
        if (!std::strcmp(format->name, name))
            return true;
    return false;
}

QByteArray be32(quint32 v)
{
    QByteArray b(4, '\0');
    qToBigEndian(v, b.data());
    return b;
}

// Ogg streams carry cover art as a base64 picture block among the comments.
QByteArray pictureComment(const AVStream *pic)
{
    const AVCodecID id = pic->codecpar->codec_id;
    const QByteArray mime = id == AV_CODEC_ID_PNG ? "image/png" : id == AV_CODEC_ID_MJPEG ? "image/jpeg" : "";
    if (mime.isEmpty())
        return {};
    QByteArray block = be32(3) + be32(quint32(mime.size())) + mime + be32(0);
    block += be32(quint32(pic->codecpar->width)) + be32(quint32(pic->codecpar->height)) + be32(24) + be32(0);
    block += be32(quint32(pic->attached_pic.size));
    block.append(reinterpret_cast<const char *>(pic->attached_pic.data), pic->attached_pic.size);
    return block.toBase64();
}

// Loudness tags describe the old audio: players would apply them on top of
// the new level, so they do not survive the gain.
void dropLoudnessTags(AVDictionary **metadata)
{
    QList<QByteArray> stale;
    const AVDictionaryEntry *e = nullptr;
    while ((e = av_dict_get(*metadata, "", e, AV_DICT_IGNORE_SUFFIX))) {
        const QByteArray key = QByteArray(e->key).toUpper();
        if (key.startsWith("REPLAYGAIN_") || key.startsWith("R128_") || key.contains("ITUNNORM"))
            stale.append(e->key);
    }
    for (const QByteArray &key : std::as_const(stale))
        av_dict_set(metadata, key.constData(), nullptr, AV_DICT_MATCH_CASE);
}

bool copyChapters(const AVFormatContext *in, AVFormatContext *out)
{
    if (!in->nb_chapters)
        return true;
    out->chapters = static_cast<AVChapter **>(av_calloc(in->nb_chapters, sizeof(AVChapter *)));
    if (!out->chapters)
        return false;
    for (unsigned i = 0; i < in->nb_chapters; ++i) {
        auto *copy = static_cast<AVChapter *>(av_mallocz(sizeof(AVChapter)));
        if (!copy)
            return false;
        const AVChapter *c = in->chapters[i];
        copy->id = c->id;
        copy->time_base = c->time_base;
        copy->start = c->start;
        copy->end = c->end;
        av_dict_copy(&copy->metadata, c->metadata, 0);
        out->chapters[out->nb_chapters++] = copy;
    }
    return true;
}

} // namespace

std::unique_ptr<Pipeline> Pipeline::open(const QString &inPath, const QString &outPath, QString *why,
                                         const std::vector<int> &moreAudio)
{
    auto p = std::make_unique<Pipeline>();
    int code = 0;
    p->input = openInput(inPath, why, &code);
    if (!p->input)
        return nullptr;
    if (hasDrmHeader(inPath) || hasDrmStream(p->input.get())) {
        *why = QStringLiteral("DRM-protected");
        return nullptr;
    }
    const int best = av_find_best_stream(p->input.get(), AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
    if (best < 0) {
        *why = QStringLiteral("no decodable audio stream");
        return nullptr;
    }
    p->durationUs = int64_t(headerLength(p->input.get(), best));

    AVFormatContext *raw = nullptr;
    const int err = avformat_alloc_output_context2(&raw, nullptr, nullptr, QFile::encodeName(outPath).constData());
    if (err < 0 || !raw) {
        *why = QStringLiteral("no muxer for %1: %2").arg(outPath, errorString(err));
        return nullptr;
    }
    p->output.reset(raw);
    p->laneOf.assign(p->input->nb_streams, -1);
    if (!p->openLane(best, inPath, why))
        return nullptr;
    for (const int index : moreAudio) {
        QString skipped;
        if (index != best && index >= 0 && unsigned(index) < p->input->nb_streams && !p->openLane(index, inPath, &skipped))
            VXLog(QStringLiteral("Audio stream %1 of %2 is copied unchanged: %3").arg(index).arg(inPath, skipped));
    }
    if (!p->mapStreams(why))
        return nullptr;
    av_dict_copy(&p->output->metadata, p->input->metadata, 0);
    dropLoudnessTags(&p->output->metadata);
    if (!copyChapters(p->input.get(), p->output.get())) {
        *why = QStringLiteral("out of memory");
        return nullptr;
    }
    if (!(p->output->oformat->flags & AVFMT_NOFILE)) {
        const int e = avio_open(&p->output->pb, QFile::encodeName(outPath).constData(), AVIO_FLAG_WRITE);
        if (e < 0) {
            *why = QStringLiteral("cannot write %1: %2").arg(outPath, errorString(e));
            return nullptr;
        }
    }
    // A file prepared for streaming stays so: the muxer then moves its index
    // to the front once the media data is written.
    AVDictionary *options = nullptr;
    if (p->output->priv_data && av_opt_find(p->output->priv_data, "movflags", nullptr, 0, 0) && indexFirst(inPath))
        av_dict_set(&options, "movflags", "+faststart", 0);
    const int e = avformat_init_output(p->output.get(), &options);
    av_dict_free(&options);
    if (e < 0) {
        *why = QStringLiteral("the %1 muxer refuses the streams: %2").arg(p->output->oformat->name, errorString(e));
        return nullptr;
    }
    return p;
}

std::vector<int> Pipeline::otherAudioStreams() const
{
    std::vector<int> others;
    for (unsigned i = 0; i < input->nb_streams; ++i) {
        const AVStream *st = input->streams[i];
        if (st->codecpar->codec_type == AVMEDIA_TYPE_AUDIO && int(i) != lanes.front()->inIndex
            && !(st->disposition & AV_DISPOSITION_ATTACHED_PIC) && avcodec_find_decoder(st->codecpar->codec_id)
            && findEncoder(st->codecpar->codec_id)
            && avformat_query_codec(output->oformat, st->codecpar->codec_id, FF_COMPLIANCE_NORMAL) > 0)
            others.push_back(int(i));
    }
    return others;
}

// A decoder and an encoder of the same codec for the stream; its output
// stream is made in mapStreams, in the input's order.
bool Pipeline::openLane(int index, const QString &inPath, QString *why)
{
    auto lane = std::make_unique<Lane>();
    lane->inIndex = index;
    const AVStream *ist = input->streams[index];
    const AVCodecID id = ist->codecpar->codec_id;
    const AVCodec *decoderCodec = avcodec_find_decoder(id);
    if (!decoderCodec) {
        *why = QStringLiteral("no decoder for %1").arg(avcodec_get_name(id));
        return false;
    }
    lane->decoder.reset(avcodec_alloc_context3(decoderCodec));
    if (!lane->decoder || avcodec_parameters_to_context(lane->decoder.get(), ist->codecpar) < 0) {
        *why = QStringLiteral("out of memory");
        return false;
    }
    AVCodecContext *dec = lane->decoder.get();
    dec->pkt_timebase = ist->time_base;
    int err = avcodec_open2(dec, decoderCodec, nullptr);
    if (err < 0) {
        *why = QStringLiteral("cannot open the decoder: %1").arg(errorString(err));
        return false;
    }

    const AVCodec *codec = findEncoder(id);
    if (!codec) {
        *why = QStringLiteral("no encoder for %1").arg(avcodec_get_name(id));
        return false;
    }
    lane->encoder.reset(avcodec_alloc_context3(codec));
    if (!lane->encoder) {
        *why = QStringLiteral("out of memory");
        return false;
    }
    AVCodecContext *enc = lane->encoder.get();
    enc->sample_rate = chooseSampleRate(codec, dec->sample_rate);
    if (!chooseLayout(codec, dec->ch_layout, &enc->ch_layout)) {
        *why = QStringLiteral("%1 cannot encode %2 channels").arg(codec->name).arg(dec->ch_layout.nb_channels);
        return false;
    }
    enc->sample_fmt = chooseSampleFormat(codec, dec->sample_fmt);
    enc->time_base = AVRational{1, enc->sample_rate};
    if (isLossless(id)) {
        const int bits = ist->codecpar->bits_per_raw_sample ? ist->codecpar->bits_per_raw_sample : dec->bits_per_raw_sample;
        enc->bits_per_raw_sample = std::min(bits, av_get_bytes_per_sample(enc->sample_fmt) * 8);
    } else {
        enc->bit_rate = chooseBitRate(input.get(), index, inPath, durationUs);
    }
    if (codec->capabilities & AV_CODEC_CAP_EXPERIMENTAL)
        enc->strict_std_compliance = FF_COMPLIANCE_EXPERIMENTAL;
    if (output->oformat->flags & AVFMT_GLOBALHEADER)
        enc->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    err = avcodec_open2(enc, codec, nullptr);
    if (err < 0) {
        *why = QStringLiteral("cannot open the %1 encoder: %2").arg(codec->name, errorString(err));
        return false;
    }
    laneOf[size_t(index)] = int(lanes.size());
    lanes.push_back(std::move(lane));
    return true;
}

// Output streams in the input's order, each with the input's disposition:
// players pick the same default track, and the file reads as it did.
bool Pipeline::mapStreams(QString *why)
{
    streamMap.assign(input->nb_streams, -1);
    const AVOutputFormat *format = output->oformat;
    std::vector<const AVStream *> oggPictures;
    for (unsigned i = 0; i < input->nb_streams; ++i) {
        const AVStream *ist = input->streams[i];
        if (const int l = laneOf[i]; l >= 0) {
            Lane &lane = *lanes[size_t(l)];
            AVStream *ost = avformat_new_stream(output.get(), nullptr);
            if (!ost || avcodec_parameters_from_context(ost->codecpar, lane.encoder.get()) < 0) {
                *why = QStringLiteral("out of memory");
                return false;
            }
            ost->time_base = lane.encoder->time_base;
            ost->disposition = ist->disposition;
            av_dict_copy(&ost->metadata, ist->metadata, 0);
            dropLoudnessTags(&ost->metadata);
            lane.outIndex = streamMap[i] = ost->index;
            continue;
        }
        const bool picture = ist->disposition & AV_DISPOSITION_ATTACHED_PIC;
        if (picture && !std::strcmp(format->name, "ogg")) {
            oggPictures.push_back(ist);
            continue;
        }
        const AVMediaType type = ist->codecpar->codec_type;
        const bool wanted = picture ? carriesPictures(format)
                                    : carriesVideo(format)
                && (type == AVMEDIA_TYPE_VIDEO || type == AVMEDIA_TYPE_AUDIO || type == AVMEDIA_TYPE_SUBTITLE)
                && avformat_query_codec(format, ist->codecpar->codec_id, FF_COMPLIANCE_NORMAL) > 0;
        if (!wanted)
            continue;
        AVStream *ost = avformat_new_stream(output.get(), nullptr);
        if (!ost || avcodec_parameters_copy(ost->codecpar, ist->codecpar) < 0)
            continue;
        // Keep the input's tag only where this muxer knows it for this codec.
        unsigned tag = 0;
        if (!format->codec_tag || av_codec_get_id(format->codec_tag, ist->codecpar->codec_tag) != ist->codecpar->codec_id
            || !av_codec_get_tag2(format->codec_tag, ist->codecpar->codec_id, &tag))
            ost->codecpar->codec_tag = 0;
        ost->time_base = ist->time_base;
        ost->disposition = ist->disposition;
        ost->avg_frame_rate = ist->avg_frame_rate;
        ost->r_frame_rate = ist->r_frame_rate;
        ost->sample_aspect_ratio = ist->sample_aspect_ratio;
        av_dict_copy(&ost->metadata, ist->metadata, 0);
        streamMap[i] = ost->index;
    }
    AVStream *audio = output->streams[lanes.front()->outIndex];
    for (const AVStream *pic : oggPictures) {
        const QByteArray comment = pictureComment(pic);
        if (!comment.isEmpty() && !av_dict_get(audio->metadata, "METADATA_BLOCK_PICTURE", nullptr, 0))
            av_dict_set(&audio->metadata, "METADATA_BLOCK_PICTURE", comment.constData(), 0);
    }
    return true;
}

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

Pipeline::~Pipeline() { releaseGraph(); }

} // namespace vx

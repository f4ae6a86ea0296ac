#include "engine/codec/VXPipeline.h"

#include "engine/codec/VXCodecConstants.h"
#include "engine/codec/VXEncoderChoice.h"
#include "engine/codec/VXLog.h"
#include "engine/codec/VXProbe.h"

extern "C" {
#include <libavutil/opt.h>
}

#include <QFile>
#include <QList>
#include <QtEndian>
#include <algorithm>
#include <cstring>

namespace vx {
namespace {

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
// the new level, so they do not survive the gain. Nor does our own record
// of how the old audio was made: the job writes the new one once it has
// checked the result, and one that fails to leaves no stale record behind.
void dropLoudnessTags(AVDictionary **metadata)
{
    QList<QByteArray> stale;
    const AVDictionaryEntry *e = nullptr;
    while ((e = av_dict_get(*metadata, "", e, AV_DICT_IGNORE_SUFFIX))) {
        const QByteArray key = QByteArray(e->key).toUpper();
        if (key.startsWith("REPLAYGAIN_") || key.startsWith("R128_") || key.contains("ITUNNORM")
            || key == kVXProvenanceKey)
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

VXResult<std::unique_ptr<Pipeline>> Pipeline::open(const QString &inPath, const QString &outPath,
                                                   const std::vector<int> &moreAudio)
{
    auto p = std::make_unique<Pipeline>();
    QString why;
    int code = 0;
    p->input = openInput(inPath, &why, &code);
    if (!p->input)
        return VXError::because(why, code);
    if (hasDrmHeader(inPath) || hasDrmStream(p->input.get()))
        return VXError::because(QStringLiteral("DRM-protected"));
    const int best = av_find_best_stream(p->input.get(), AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
    if (best < 0)
        return VXError::because(QStringLiteral("no decodable audio stream"));
    p->durationUs = int64_t(headerLength(p->input.get(), best));

    AVFormatContext *raw = nullptr;
    const int err = avformat_alloc_output_context2(&raw, nullptr, nullptr, QFile::encodeName(outPath).constData());
    if (err < 0 || !raw)
        return VXError::because(QStringLiteral("no muxer for %1: %2").arg(outPath, errorString(err)));
    p->output.reset(raw);
    p->laneOf.assign(p->input->nb_streams, -1);
    if (VXResult<> lane = p->openLane(best, inPath); !lane)
        return lane.error();
    for (const int index : moreAudio) {
        if (index == best || index < 0 || unsigned(index) >= p->input->nb_streams)
            continue;
        if (VXResult<> lane = p->openLane(index, inPath); !lane)
            VXLog(QStringLiteral("Audio stream %1 of %2 is copied unchanged: %3").arg(index).arg(inPath, lane.reason()));
    }
    if (VXResult<> mapped = p->mapStreams(); !mapped)
        return mapped.error();
    av_dict_copy(&p->output->metadata, p->input->metadata, 0);
    dropLoudnessTags(&p->output->metadata);
    if (!copyChapters(p->input.get(), p->output.get()))
        return VXError::because(QStringLiteral("out of memory"));
    if (!(p->output->oformat->flags & AVFMT_NOFILE)) {
        const int e = avio_open(&p->output->pb, QFile::encodeName(outPath).constData(), AVIO_FLAG_WRITE);
        if (e < 0)
            return VXError::because(QStringLiteral("cannot write %1: %2").arg(outPath, errorString(e)));
    }
    // A file prepared for streaming stays so: the muxer then moves its index
    // to the front once the media data is written.
    AVDictionary *options = nullptr;
    if (p->output->priv_data && av_opt_find(p->output->priv_data, "movflags", nullptr, 0, 0) && indexFirst(inPath))
        av_dict_set(&options, "movflags", "+faststart", 0);
    const int e = avformat_init_output(p->output.get(), &options);
    av_dict_free(&options);
    if (e < 0)
        return VXError::because(QStringLiteral("the %1 muxer refuses the streams: %2").arg(p->output->oformat->name, errorString(e)));
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
VXResult<> Pipeline::openLane(int index, const QString &inPath)
{
    auto lane = std::make_unique<Lane>();
    lane->inIndex = index;
    const AVStream *ist = input->streams[index];
    const AVCodecID id = ist->codecpar->codec_id;
    const AVCodec *decoderCodec = avcodec_find_decoder(id);
    if (!decoderCodec)
        return VXError::because(QStringLiteral("no decoder for %1").arg(avcodec_get_name(id)));
    lane->decoder.reset(avcodec_alloc_context3(decoderCodec));
    if (!lane->decoder || avcodec_parameters_to_context(lane->decoder.get(), ist->codecpar) < 0)
        return VXError::because(QStringLiteral("out of memory"));
    AVCodecContext *dec = lane->decoder.get();
    dec->pkt_timebase = ist->time_base;
    int err = avcodec_open2(dec, decoderCodec, nullptr);
    if (err < 0)
        return VXError::because(QStringLiteral("cannot open the decoder: %1").arg(errorString(err)));

    const AVCodec *codec = findEncoder(id);
    if (!codec)
        return VXError::because(QStringLiteral("no encoder for %1").arg(avcodec_get_name(id)));
    lane->encoder.reset(avcodec_alloc_context3(codec));
    if (!lane->encoder)
        return VXError::because(QStringLiteral("out of memory"));
    AVCodecContext *enc = lane->encoder.get();
    enc->sample_rate = chooseSampleRate(codec, dec->sample_rate);
    if (!chooseLayout(codec, dec->ch_layout, &enc->ch_layout))
        return VXError::because(QStringLiteral("%1 cannot encode %2 channels").arg(codec->name).arg(dec->ch_layout.nb_channels));
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
    if (err < 0)
        return VXError::because(QStringLiteral("cannot open the %1 encoder: %2").arg(codec->name, errorString(err)));
    laneOf[size_t(index)] = int(lanes.size());
    lanes.push_back(std::move(lane));
    return {};
}

// Output streams in the input's order, each with the input's disposition:
// players pick the same default track, and the file reads as it did.
VXResult<> Pipeline::mapStreams()
{
    streamMap.assign(input->nb_streams, -1);
    const AVOutputFormat *format = output->oformat;
    std::vector<const AVStream *> oggPictures;
    for (unsigned i = 0; i < input->nb_streams; ++i) {
        const AVStream *ist = input->streams[i];
        if (const int l = laneOf[i]; l >= 0) {
            Lane &lane = *lanes[size_t(l)];
            AVStream *ost = avformat_new_stream(output.get(), nullptr);
            if (!ost || avcodec_parameters_from_context(ost->codecpar, lane.encoder.get()) < 0)
                return VXError::because(QStringLiteral("out of memory"));
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
    return {};
}

Pipeline::~Pipeline() { releaseGraph(); }

} // namespace vx

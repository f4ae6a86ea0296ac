#include "engine/codec/VXLoudnessMeter.h"

#include "engine/codec/VXLibav.h"
#include "engine/codec/VXProbe.h"
#include "engine/codec/VXWorker.h"

extern "C" {
#include <libavutil/channel_layout.h>
}

#include <ebur128.h>

#include <algorithm>

namespace {

struct MeterCloser {
    void operator()(ebur128_state *s) const { ebur128_destroy(&s); }
};
using MeterPtr = std::unique_ptr<ebur128_state, MeterCloser>;

// BS.1770 weights by position: the LFE does not count, surrounds weigh more.
int channelWeight(const AVChannelLayout &layout, int index)
{
    switch (av_channel_layout_channel_from_index(&layout, unsigned(index))) {
    case AV_CHAN_FRONT_LEFT: return EBUR128_LEFT;
    case AV_CHAN_FRONT_RIGHT: return EBUR128_RIGHT;
    case AV_CHAN_FRONT_CENTER: return EBUR128_CENTER;
    case AV_CHAN_LOW_FREQUENCY:
    case AV_CHAN_LOW_FREQUENCY_2: return EBUR128_UNUSED;
    case AV_CHAN_BACK_LEFT:
    case AV_CHAN_SIDE_LEFT: return EBUR128_LEFT_SURROUND;
    case AV_CHAN_BACK_RIGHT:
    case AV_CHAN_SIDE_RIGHT: return EBUR128_RIGHT_SURROUND;
    default: return layout.nb_channels == 1 ? EBUR128_CENTER : EBUR128_LEFT;
    }
}

} // namespace

struct VXFrameMeter::Impl {
    bool truePeak = false;
    MeterPtr meter;
    vx::SwrPtr swr;
    vx::FramePtr converted;

    bool start(const AVFrame *frame)
    {
        AVChannelLayout layout{};
        if (frame->ch_layout.order == AV_CHANNEL_ORDER_UNSPEC)
            av_channel_layout_default(&layout, frame->ch_layout.nb_channels);
        else if (av_channel_layout_copy(&layout, &frame->ch_layout) < 0)
            return false;
        converted = vx::makeFrame();
        swr.reset(swr_alloc());
        if (!converted || !swr || layout.nb_channels <= 0 || frame->sample_rate <= 0) {
            av_channel_layout_uninit(&layout);
            return false;
        }
        converted->format = AV_SAMPLE_FMT_FLT;
        converted->sample_rate = frame->sample_rate;
        av_channel_layout_copy(&converted->ch_layout, &layout);
        const int mode = EBUR128_MODE_I | EBUR128_MODE_LRA | (truePeak ? EBUR128_MODE_TRUE_PEAK : 0);
        meter.reset(ebur128_init(unsigned(layout.nb_channels), unsigned(frame->sample_rate), mode));
        if (meter)
            for (int c = 0; c < layout.nb_channels; ++c)
                ebur128_set_channel(meter.get(), unsigned(c), channelWeight(layout, c));
        av_channel_layout_uninit(&layout);
        return meter && swr_config_frame(swr.get(), converted.get(), frame) >= 0;
    }

    void feed()
    {
        if (converted->nb_samples > 0)
            ebur128_add_frames_float(meter.get(), reinterpret_cast<const float *>(converted->data[0]),
                                     size_t(converted->nb_samples));
        av_frame_unref(converted.get());
        converted->format = AV_SAMPLE_FMT_FLT;
        converted->sample_rate = int(meter->samplerate);
        av_channel_layout_default(&converted->ch_layout, int(meter->channels));
    }
};

VXFrameMeter::VXFrameMeter(bool truePeak) : d(std::make_unique<Impl>()) { d->truePeak = truePeak; }

VXFrameMeter::~VXFrameMeter() = default;

bool VXFrameMeter::add(const AVFrame *frame)
{
    Impl &m = *d;
    if (!m.meter && !m.start(frame))
        return false;
    int err = swr_convert_frame(m.swr.get(), m.converted.get(), frame);
    if (err == AVERROR_INPUT_CHANGED) {
        if (swr_config_frame(m.swr.get(), m.converted.get(), frame) < 0)
            return false;
        err = swr_convert_frame(m.swr.get(), m.converted.get(), frame);
    }
    if (err < 0)
        return false;
    m.feed();
    return true;
}

VXLoudness VXFrameMeter::finish()
{
    Impl &m = *d;
    VXLoudness r;
    if (!m.meter)
        return r;
    if (swr_convert_frame(m.swr.get(), m.converted.get(), nullptr) >= 0)
        m.feed();
    ebur128_loudness_global(m.meter.get(), &r.integrated);
    ebur128_loudness_range(m.meter.get(), &r.range);
    if (m.truePeak) {
        double peak = 0;
        for (unsigned c = 0; c < m.meter->channels; ++c) {
            double p = 0;
            if (ebur128_true_peak(m.meter.get(), c, &p) == EBUR128_SUCCESS)
                peak = std::max(peak, p);
        }
        r.truePeak = peak > 0 ? 20.0 * std::log10(peak) : -HUGE_VAL;
    }
    return r;
}

bool VXMeasureFile(const QString &path, bool truePeak, VXLoudness *out, QString *why,
                   const std::atomic<bool> *cancel)
{
    if (!vx::workerProgram().isEmpty()) {
        // Decoding the result can crash like any decoding: in the child too.
        vx::WorkerRun run({QStringLiteral("measure"), path, truePeak ? QStringLiteral("1") : QStringLiteral("0")},
                          600.0);
        const vx::WorkerRun::Outcome outcome = run.run({});
        *out = outcome.loudness;
        *why = outcome.reason;
        return outcome.completed && out->measured();
    }
    int code = 0;
    vx::InputPtr input = vx::openInput(path, why, &code);
    if (!input)
        return false;
    const int index = av_find_best_stream(input.get(), AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
    if (index < 0) {
        *why = QStringLiteral("no decodable audio stream");
        return false;
    }
    const AVStream *st = input->streams[index];
    const AVCodec *codec = avcodec_find_decoder(st->codecpar->codec_id);
    vx::CodecPtr decoder(codec ? avcodec_alloc_context3(codec) : nullptr);
    if (!decoder || avcodec_parameters_to_context(decoder.get(), st->codecpar) < 0
        || avcodec_open2(decoder.get(), codec, nullptr) < 0) {
        *why = QStringLiteral("cannot decode %1").arg(avcodec_get_name(st->codecpar->codec_id));
        return false;
    }
    for (unsigned i = 0; i < input->nb_streams; ++i)
        input->streams[i]->discard = int(i) == index ? AVDISCARD_DEFAULT : AVDISCARD_ALL;

    VXFrameMeter meter(truePeak);
    auto packet = vx::makePacket();
    auto frame = vx::makeFrame();
    if (!packet || !frame) {
        *why = QStringLiteral("out of memory");
        return false;
    }
    auto receive = [&] {
        int err;
        while ((err = avcodec_receive_frame(decoder.get(), frame.get())) >= 0 || err == AVERROR_INVALIDDATA) {
            if (err >= 0) {
                const bool ok = meter.add(frame.get());
                av_frame_unref(frame.get());
                if (!ok)
                    return false;
            }
        }
        return true;
    };
    while (av_read_frame(input.get(), packet.get()) >= 0) {
        if (cancel && cancel->load()) {
            *why = QStringLiteral("cancelled");
            return false;
        }
        if (packet->stream_index == index)
            avcodec_send_packet(decoder.get(), packet.get());  // corrupt packets are skipped, as in playback
        av_packet_unref(packet.get());
        if (!receive()) {
            *why = QStringLiteral("cannot measure the decoded audio");
            return false;
        }
    }
    avcodec_send_packet(decoder.get(), nullptr);
    if (!receive()) {
        *why = QStringLiteral("cannot measure the decoded audio");
        return false;
    }
    *out = meter.finish();
    if (!out->measured()) {
        *why = QStringLiteral("no audio decoded");
        return false;
    }
    return true;
}

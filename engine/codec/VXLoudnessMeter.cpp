#include "engine/codec/VXLoudnessMeter.h"

#include "engine/codec/VXLibav.h"

extern "C" {
#include <libavfilter/avfilter.h>
#include <libavutil/channel_layout.h>
}

#include <ebur128.h>

#include <algorithm>
#include <cstdlib>

namespace {

// Raised whenever the figures this meter gives for the same audio change
// (channel weights, gating, the curve's steps).
constexpr int kMeterRevision = 1;

struct MeterCloser {
    void operator()(ebur128_state *s) const { ebur128_destroy(&s); }
};
using MeterPtr = std::unique_ptr<ebur128_state, MeterCloser>;

// BS.1770 weights by position: the LFE does not count, surrounds weigh
// +1.5 dB. BS.1770-4 gives that to the ear-level positions 60° to 120° off
// the front and 1.0 to the rest, which taken to the letter leaves a rear at
// 135° to 180° (6.1's back centre, 7.1's back pair) at 1.0. FFmpeg's names
// carry no angles, though: its "back" pair is the 110° surround pair of quad
// and 5.1(back), and the rears of 6.1 and 7.1 carry what 5.1's surrounds
// would. So every side and rear channel weighs as a surround, as FFmpeg's own
// ebur128 meter weighs them, and a file reads the same whichever name its
// surrounds have (libebur128 has no centred position with that weight: the
// back centre takes the 110° one's). The wides sit at 60°, inside the range;
// the pair beside the centre, the heights and anything unnamed weigh 1.0.
int positionWeight(AVChannel channel)
{
    switch (channel) {
    case AV_CHAN_LOW_FREQUENCY:
    case AV_CHAN_LOW_FREQUENCY_2:
    case AV_CHAN_UNUSED: return EBUR128_UNUSED;
    case AV_CHAN_FRONT_LEFT:
    case AV_CHAN_FRONT_LEFT_OF_CENTER: return EBUR128_Mp030;
    case AV_CHAN_FRONT_RIGHT:
    case AV_CHAN_FRONT_RIGHT_OF_CENTER: return EBUR128_Mm030;
    case AV_CHAN_WIDE_LEFT: return EBUR128_Mp060;
    case AV_CHAN_WIDE_RIGHT: return EBUR128_Mm060;
    case AV_CHAN_SIDE_LEFT:
    case AV_CHAN_BACK_LEFT:
    case AV_CHAN_SURROUND_DIRECT_LEFT:
    case AV_CHAN_BACK_CENTER: return EBUR128_Mp110;
    case AV_CHAN_SIDE_RIGHT:
    case AV_CHAN_BACK_RIGHT:
    case AV_CHAN_SURROUND_DIRECT_RIGHT: return EBUR128_Mm110;
    default: return EBUR128_Mp000;
    }
}

int channelWeight(const AVChannelLayout &layout, int index, bool dualMono)
{
    const int weight = positionWeight(av_channel_layout_channel_from_index(&layout, unsigned(index)));
    return dualMono && layout.nb_channels == 1 && weight != EBUR128_UNUSED ? EBUR128_DUAL_MONO : weight;
}

// The factor libebur128 gives a channel type.
double typeFactor(int type)
{
    switch (type) {
    case EBUR128_UNUSED: return 0.0;
    case EBUR128_Mp110:
    case EBUR128_Mm110:
    case EBUR128_Mp060:
    case EBUR128_Mm060:
    case EBUR128_Mp090:
    case EBUR128_Mm090: return 1.41;
    case EBUR128_DUAL_MONO: return 2.0;
    default: return 1.0;
    }
}

// The type loudnorm's meter gives a channel by its index alone.
int loudnormType(int count, int index)
{
    if (count == 4)
        return index < 2 ? EBUR128_LEFT : EBUR128_LEFT_SURROUND;
    if (count == 5)
        return index < 3 ? EBUR128_LEFT : EBUR128_LEFT_SURROUND;
    return index < 3 ? EBUR128_LEFT : index == 4 || index == 5 ? EBUR128_LEFT_SURROUND : EBUR128_UNUSED;
}

// The loudness of each 100 ms step, kept to 0.01 LU: the curve and the
// maxima follow from them (VXCurveFromSteps) rather than from libebur128's
// own 3 s and 400 ms figures, which would sum their whole window again at
// every step, thirty times the work.
struct Curve {
    size_t stepSamples = 0;
    size_t filled = 0;  // samples of the step under way
    std::vector<qint16> steps;

    void closeStep(ebur128_state *meter)
    {
        double step = -HUGE_VAL;
        ebur128_loudness_window(meter, (unsigned long)(kVXShortTermStep * 1000 + 0.5), &step);
        steps.push_back(VXStepOf(step));
    }
};

} // namespace

struct VXFrameMeter::Impl {
    bool truePeak = false;
    bool wantCurve = false;
    bool dualMono = false;
    MeterPtr meter;
    vx::SwrPtr swr;
    vx::FramePtr converted;
    vx::FramePtr view;          // a frame of no stated order, as its count's default
    AVChannelLayout layout{};   // what the meter measures: the first frame's
    Curve curve;

    ~Impl() { av_channel_layout_uninit(&layout); }

    bool start(const AVFrame *frame)
    {
        if (frame->ch_layout.order == AV_CHANNEL_ORDER_UNSPEC)
            av_channel_layout_default(&layout, frame->ch_layout.nb_channels);
        else if (av_channel_layout_copy(&layout, &frame->ch_layout) < 0)
            return false;
        converted = vx::makeFrame();
        view = vx::makeFrame();
        swr.reset(swr_alloc());
        if (!converted || !view || !swr || layout.nb_channels <= 0 || frame->sample_rate <= 0)
            return false;
        const int mode = EBUR128_MODE_I | EBUR128_MODE_LRA | (truePeak ? EBUR128_MODE_TRUE_PEAK : 0);
        meter.reset(ebur128_init(unsigned(layout.nb_channels), unsigned(frame->sample_rate), mode));
        if (!meter)
            return false;
        for (int c = 0; c < layout.nb_channels; ++c)
            ebur128_set_channel(meter.get(), unsigned(c), channelWeight(layout, c, dualMono));
        curve.stepSamples = size_t(std::lround(frame->sample_rate * kVXShortTermStep));
        const AVFrame *in = stated(frame);
        const bool ok = curve.stepSamples > 0 && in && askForMeterFormat()
            && swr_config_frame(swr.get(), converted.get(), in) >= 0;
        av_frame_unref(view.get());
        if (!ok)
            meter.reset();
        return ok;
    }

    // The converter reads a layout of no stated order as its count's
    // default, but compares every later frame with what it read: each would
    // count as changed and start the conversion over, losing the
    // resampler's state. Such a frame goes in as the default, said outright.
    const AVFrame *stated(const AVFrame *frame)
    {
        if (frame->ch_layout.order != AV_CHANNEL_ORDER_UNSPEC)
            return frame;
        if (av_frame_ref(view.get(), frame) < 0)
            return nullptr;
        av_channel_layout_uninit(&view->ch_layout);
        av_channel_layout_default(&view->ch_layout, frame->ch_layout.nb_channels);
        return view.get();
    }

    // What the converter is to make: the meter's rate and layout, whatever
    // later frames come with; it refuses an output that differs from the
    // one it was set up for.
    bool askForMeterFormat()
    {
        converted->format = AV_SAMPLE_FMT_FLT;
        converted->sample_rate = int(meter->samplerate);
        return av_channel_layout_copy(&converted->ch_layout, &layout) >= 0;
    }

    bool feed()
    {
        const float *samples = reinterpret_cast<const float *>(converted->data[0]);
        size_t left = converted->nb_samples > 0 ? size_t(converted->nb_samples) : 0;
        // With the curve, the samples go in up to each step's end, so every
        // step's figure covers exactly its own samples.
        while (left > 0) {
            const size_t n = wantCurve ? std::min(left, curve.stepSamples - curve.filled) : left;
            ebur128_add_frames_float(meter.get(), samples, n);
            samples += n * meter->channels;
            left -= n;
            if (wantCurve && (curve.filled += n) == curve.stepSamples) {
                curve.filled = 0;
                curve.closeStep(meter.get());
            }
        }
        av_frame_unref(converted.get());
        return askForMeterFormat();
    }
};

VXFrameMeter::VXFrameMeter(bool truePeak, bool curve, bool dualMono) : d(std::make_unique<Impl>())
{
    d->truePeak = truePeak;
    d->wantCurve = curve;
    d->dualMono = dualMono;
}

VXFrameMeter::~VXFrameMeter() = default;

bool VXFrameMeter::add(const AVFrame *frame)
{
    Impl &m = *d;
    if (!m.meter && !m.start(frame))
        return false;
    const AVFrame *in = m.stated(frame);
    if (!in)
        return false;
    int err = swr_convert_frame(m.swr.get(), m.converted.get(), in);
    if (err == AVERROR_INPUT_CHANGED) {
        // A concatenated file's next part: converted to the meter's format.
        err = swr_config_frame(m.swr.get(), m.converted.get(), in);
        if (err >= 0)
            err = swr_convert_frame(m.swr.get(), m.converted.get(), in);
    }
    av_frame_unref(m.view.get());
    return err >= 0 && m.feed();
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
    if (ebur128_relative_threshold(m.meter.get(), &r.threshold) != EBUR128_SUCCESS)
        r.threshold = NAN;
    if (m.wantCurve) {
        r.steps = std::move(m.curve.steps);
        VXCurveFromSteps(r);
    }
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

bool VXLoudnormWeighsAlike(const AVChannelLayout &layout, bool dualMono)
{
    if (dualMono && layout.nb_channels == 1)
        return false;  // loudnorm counts mono once
    AVChannelLayout known{};
    if (layout.order == AV_CHANNEL_ORDER_UNSPEC)
        av_channel_layout_default(&known, layout.nb_channels);
    else if (av_channel_layout_copy(&known, &layout) < 0)
        return false;
    bool alike = true;
    for (int c = 0; alike && c < known.nb_channels; ++c)
        alike = typeFactor(channelWeight(known, c, false)) == typeFactor(loudnormType(known.nb_channels, c));
    av_channel_layout_uninit(&known);
    return alike;
}

double VXFrameMeter::combinedLoudness(const std::vector<const VXFrameMeter *> &meters, double *range)
{
    std::vector<ebur128_state *> states;
    for (const VXFrameMeter *m : meters)
        if (m && m->d->meter)
            states.push_back(m->d->meter.get());
    double integrated = -HUGE_VAL;
    if (states.empty() || ebur128_loudness_global_multiple(states.data(), states.size(), &integrated) != EBUR128_SUCCESS)
        integrated = NAN;
    if (range && ebur128_loudness_range_multiple(states.data(), states.size(), range) != EBUR128_SUCCESS)
        *range = NAN;
    return integrated;
}

QString VXMeterIdentity(bool loudnorm)
{
    if (loudnorm) {
        const unsigned v = avfilter_version();
        return QStringLiteral("loudnorm/lavfi-%1.%2.%3").arg(v >> 16).arg((v >> 8) & 0xff).arg(v & 0xff);
    }
    int major = 0, minor = 0, patch = 0;
    ebur128_get_version(&major, &minor, &patch);
    return QStringLiteral("ebur128/%1.%2.%3-r%4").arg(major).arg(minor).arg(patch).arg(kMeterRevision);
}

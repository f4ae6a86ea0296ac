#include "engine/codec/VXLoudnessMeter.h"

#include "engine/codec/VXLibav.h"
#include "engine/codec/VXProbe.h"
#include "engine/codec/VXWorker.h"

extern "C" {
#include <libavutil/channel_layout.h>
}

#include <ebur128.h>

#include <algorithm>
#include <cstdlib>

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

double energyOf(double lufs) { return std::isfinite(lufs) ? std::pow(10.0, (lufs + 0.691) / 10.0) : 0.0; }
double lufsOf(double energy) { return energy > 0 ? 10.0 * std::log10(energy) - 0.691 : -HUGE_VAL; }

// The short-term curve and the maxima from the energies of consecutive
// 100 ms steps: libebur128's own 3 s and 400 ms figures would sum their
// whole window again at every step, thirty times the work.
struct Curve {
    static constexpr int kSteps = int(kVXShortTermWindow / kVXShortTermStep + 0.5);
    size_t stepSamples = 0;
    size_t filled = 0;         // samples of the step under way
    double energies[kSteps] = {};  // a ring, the latest at last
    int last = 0;
    double maxShortTerm = -HUGE_VAL;
    double maxMomentary = -HUGE_VAL;
    std::vector<float> shortTerm;

    void closeStep(ebur128_state *meter)
    {
        double step = -HUGE_VAL;
        ebur128_loudness_window(meter, (unsigned long)(kVXShortTermStep * 1000 + 0.5), &step);
        last = (last + 1) % kSteps;
        energies[last] = energyOf(step);
        double shortSum = 0, momentarySum = 0;
        for (int i = 0; i < kSteps; ++i) {
            shortSum += energies[i];
            if (i < 4)
                momentarySum += energies[(last - i + kSteps) % kSteps];
        }
        const double shortTerm = lufsOf(shortSum / kSteps);
        this->shortTerm.push_back(float(shortTerm));
        maxShortTerm = std::max(maxShortTerm, shortTerm);
        maxMomentary = std::max(maxMomentary, lufsOf(momentarySum / 4));
    }
};

} // namespace

struct VXFrameMeter::Impl {
    bool truePeak = false;
    bool wantCurve = false;
    MeterPtr meter;
    vx::SwrPtr swr;
    vx::FramePtr converted;
    Curve curve;

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
        curve.stepSamples = size_t(std::lround(frame->sample_rate * kVXShortTermStep));
        av_channel_layout_uninit(&layout);
        return meter && curve.stepSamples > 0 && swr_config_frame(swr.get(), converted.get(), frame) >= 0;
    }

    void feed()
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
        converted->format = AV_SAMPLE_FMT_FLT;
        converted->sample_rate = int(meter->samplerate);
        av_channel_layout_default(&converted->ch_layout, int(meter->channels));
    }
};

VXFrameMeter::VXFrameMeter(bool truePeak, bool curve) : d(std::make_unique<Impl>())
{
    d->truePeak = truePeak;
    d->wantCurve = curve;
}

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
    if (ebur128_relative_threshold(m.meter.get(), &r.threshold) != EBUR128_SUCCESS)
        r.threshold = NAN;
    if (m.wantCurve) {
        r.maxShortTerm = m.curve.maxShortTerm;
        r.maxMomentary = m.curve.maxMomentary;
        r.shortTerm = std::move(m.curve.shortTerm);
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

namespace {

// The figures beyond "M" (threshold, maxima, curve) travel from the worker as
// the meter's print-out: one line "threshold maxShortTerm maxMomentary",
// then the curve, a number a step.
QByteArray curveText(const VXLoudness &l)
{
    QByteArray text = QByteArray::number(l.threshold, 'g', 17) + ' ' + QByteArray::number(l.maxShortTerm, 'g', 17)
        + ' ' + QByteArray::number(l.maxMomentary, 'g', 17) + '\n';
    text.reserve(text.size() + qsizetype(l.shortTerm.size()) * 7);
    for (const float v : l.shortTerm)
        text += (std::isfinite(v) ? QByteArray::number(double(v), 'f', 2) : QByteArrayLiteral("-inf")) + ' ';
    return text;
}

void readCurveText(const QByteArray &text, VXLoudness *l)
{
    const QList<QByteArray> lines = text.split('\n');
    // strtod reads "-inf" and "nan", which QByteArray::toDouble does not.
    auto number = [](const QByteArray &t) { return std::strtod(t.constData(), nullptr); };
    const QList<QByteArray> head = lines.value(0).split(' ');
    if (head.size() != 3)
        return;
    l->threshold = number(head[0]);
    l->maxShortTerm = number(head[1]);
    l->maxMomentary = number(head[2]);
    const QList<QByteArray> points = lines.value(1).split(' ');
    l->shortTerm.reserve(size_t(points.size()));
    for (const QByteArray &p : points)
        if (!p.isEmpty())
            l->shortTerm.push_back(float(number(p)));
}

struct StreamMeter {
    int index = -1;
    vx::CodecPtr decoder;
    std::unique_ptr<VXFrameMeter> meter;
    bool broken = false;  // a further stream that fails is left out, not the file
};

} // namespace

QByteArray VXCurvePrintOut(const VXLoudness &loudness) { return curveText(loudness); }

namespace {

// The decoding loop, here in this process; keep, when given, receives the
// best stream's meter with its state, for figures over several files.
bool measureHere(const QString &path, int flags, VXLoudness *out, QString *why, const std::atomic<bool> *cancel,
                 std::map<int, VXLoudness> *others, std::unique_ptr<VXFrameMeter> *keep = nullptr);

} // namespace

bool VXMeasureFile(const QString &path, int flags, VXLoudness *out, QString *why, const std::atomic<bool> *cancel,
                   std::map<int, VXLoudness> *others)
{
    if (!vx::workerProgram().isEmpty()) {
        // Decoding the result can crash like any decoding: in the child too.
        vx::WorkerRun run({QStringLiteral("measure"), path, QString::number(flags)}, 600.0);
        QByteArray printOut;
        const vx::WorkerRun::Outcome outcome
            = run.run({nullptr, [&](int, const QByteArray &bytes) { printOut = bytes; }});
        *out = outcome.loudness;
        *why = outcome.reason;
        if (!printOut.isEmpty())
            readCurveText(printOut, out);
        if ((flags & VXMeasureOtherStreams) && others)
            *others = outcome.streams;
        return outcome.completed && out->measured();
    }
    return measureHere(path, flags, out, why, cancel, others);
}

namespace {

bool measureHere(const QString &path, int flags, VXLoudness *out, QString *why, const std::atomic<bool> *cancel,
                 std::map<int, VXLoudness> *others, std::unique_ptr<VXFrameMeter> *keep)
{
    const bool truePeak = flags & VXMeasureTruePeak;
    const bool curve = flags & VXMeasureCurve;
    const bool otherStreams = (flags & VXMeasureOtherStreams) && others;
    int code = 0;
    vx::InputPtr input = vx::openInput(path, why, &code);
    if (!input)
        return false;
    const int best = av_find_best_stream(input.get(), AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
    if (best < 0) {
        *why = QStringLiteral("no decodable audio stream");
        return false;
    }
    std::vector<StreamMeter> meters;
    auto open = [&](int index) {
        const AVStream *st = input->streams[index];
        const AVCodec *codec = avcodec_find_decoder(st->codecpar->codec_id);
        StreamMeter m;
        m.index = index;
        m.decoder.reset(codec ? avcodec_alloc_context3(codec) : nullptr);
        if (!m.decoder || avcodec_parameters_to_context(m.decoder.get(), st->codecpar) < 0
            || avcodec_open2(m.decoder.get(), codec, nullptr) < 0)
            return false;
        m.meter = std::make_unique<VXFrameMeter>(truePeak, curve && index == best);
        meters.push_back(std::move(m));
        return true;
    };
    if (!open(best)) {
        *why = QStringLiteral("cannot decode %1").arg(avcodec_get_name(input->streams[best]->codecpar->codec_id));
        return false;
    }
    for (unsigned i = 0; otherStreams && i < input->nb_streams; ++i) {
        const AVStream *st = input->streams[i];
        if (int(i) != best && st->codecpar->codec_type == AVMEDIA_TYPE_AUDIO
            && !(st->disposition & AV_DISPOSITION_ATTACHED_PIC))
            open(int(i));
    }
    std::vector<int> meterOf(input->nb_streams, -1);
    for (size_t m = 0; m < meters.size(); ++m)
        meterOf[size_t(meters[m].index)] = int(m);
    for (unsigned i = 0; i < input->nb_streams; ++i)
        input->streams[i]->discard = meterOf[i] >= 0 ? AVDISCARD_DEFAULT : AVDISCARD_ALL;

    auto packet = vx::makePacket();
    auto frame = vx::makeFrame();
    if (!packet || !frame) {
        *why = QStringLiteral("out of memory");
        return false;
    }
    auto receive = [&](StreamMeter &m) {
        int err;
        while (!m.broken
               && ((err = avcodec_receive_frame(m.decoder.get(), frame.get())) >= 0 || err == AVERROR_INVALIDDATA)) {
            if (err >= 0) {
                m.broken = !m.meter->add(frame.get());
                av_frame_unref(frame.get());
            }
        }
        return !meters.front().broken;
    };
    while (av_read_frame(input.get(), packet.get()) >= 0) {
        if (cancel && cancel->load()) {
            *why = QStringLiteral("cancelled");
            return false;
        }
        const int m = packet->stream_index < int(meterOf.size()) ? meterOf[size_t(packet->stream_index)] : -1;
        if (m >= 0 && !meters[size_t(m)].broken)
            avcodec_send_packet(meters[size_t(m)].decoder.get(), packet.get());  // corrupt packets are skipped, as in playback
        av_packet_unref(packet.get());
        if (m >= 0 && !receive(meters[size_t(m)])) {
            *why = QStringLiteral("cannot measure the decoded audio");
            return false;
        }
    }
    for (StreamMeter &m : meters) {
        avcodec_send_packet(m.decoder.get(), nullptr);
        if (!receive(m)) {
            *why = QStringLiteral("cannot measure the decoded audio");
            return false;
        }
    }
    *out = meters.front().meter->finish();
    if (!out->measured()) {
        *why = QStringLiteral("no audio decoded");
        return false;
    }
    for (size_t m = 1; m < meters.size(); ++m) {
        const VXLoudness l = meters[m].meter->finish();
        if (!meters[m].broken && l.measured())
            (*others)[meters[m].index] = l;
    }
    if (keep)
        *keep = std::move(meters.front().meter);
    return true;
}

// The album's print-out: a line a track, "ok I TP LRA THRESHOLD" or
// "failed REASON", then "album I TP LRA".
QByteArray albumText(const VXAlbumLoudness &a)
{
    auto n = [](double v) { return QByteArray::number(v, 'g', 17); };
    QByteArray text;
    for (size_t i = 0; i < a.tracks.size(); ++i) {
        const VXLoudness &t = a.tracks[i];
        text += t.measured() ? "ok " + n(t.integrated) + ' ' + n(t.truePeak) + ' ' + n(t.range) + ' ' + n(t.threshold)
                             : "failed " + a.reasons.value(qsizetype(i)).simplified().toUtf8();
        text += '\n';
    }
    return text + "album " + n(a.album.integrated) + ' ' + n(a.album.truePeak) + ' ' + n(a.album.range) + '\n';
}

bool readAlbumText(const QByteArray &text, qsizetype count, VXAlbumLoudness *a)
{
    auto number = [](const QByteArray &t) { return std::strtod(t.constData(), nullptr); };
    const QList<QByteArray> lines = text.split('\n');
    if (lines.size() < count + 1)
        return false;
    for (qsizetype i = 0; i <= count; ++i) {
        const QList<QByteArray> f = lines[i].split(' ');
        VXLoudness l;
        if (f.size() >= 4 && (f[0] == "ok" || f[0] == "album")) {
            l.integrated = number(f[1]);
            l.truePeak = number(f[2]);
            l.range = number(f[3]);
            if (f.size() >= 5)
                l.threshold = number(f[4]);
        }
        if (i == count) {
            a->album = l;
        } else {
            a->tracks.push_back(l);
            a->reasons << (f[0] == "failed" ? QString::fromUtf8(lines[i].mid(7)) : QString());
        }
    }
    return true;
}

} // namespace

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

bool VXMeasureAlbum(const QStringList &paths, VXAlbumLoudness *out, QString *why, const std::atomic<bool> *cancel)
{
    *out = {};
    if (!vx::workerProgram().isEmpty()) {
        // The album figure needs every track's meter state at once, and
        // states do not cross a pipe: one child measures the whole album and
        // sends back figures only. Albums still run side by side.
        QStringList command{QStringLiteral("measure-album")};
        command += paths;
        vx::WorkerRun run(command, 600.0 * double(std::max<qsizetype>(1, paths.size())));
        QByteArray printOut;
        const vx::WorkerRun::Outcome outcome
            = run.run({nullptr, [&](int, const QByteArray &bytes) { printOut = bytes; }});
        if (!outcome.completed || !readAlbumText(printOut, paths.size(), out)) {
            *why = outcome.reason.isEmpty() ? QStringLiteral("the album could not be measured") : outcome.reason;
            *out = {};
            return false;
        }
        return out->album.measured();
    }
    std::vector<std::unique_ptr<VXFrameMeter>> meters;
    for (const QString &path : paths) {
        VXLoudness l;
        QString reason;
        std::unique_ptr<VXFrameMeter> meter;
        if (cancel && cancel->load()) {
            *why = QStringLiteral("cancelled");
            return false;
        }
        if (!measureHere(path, VXMeasureTruePeak, &l, &reason, cancel, nullptr, &meter))
            l = {};
        out->tracks.push_back(l);
        out->reasons << reason;
        if (meter && l.measured()) {
            meters.push_back(std::move(meter));
            out->album.truePeak = std::isnan(out->album.truePeak) ? l.truePeak : std::max(out->album.truePeak, l.truePeak);
        }
    }
    std::vector<const VXFrameMeter *> all;
    for (const auto &m : meters)
        all.push_back(m.get());
    out->album.integrated = VXFrameMeter::combinedLoudness(all, &out->album.range);
    if (!out->album.measured())
        *why = QStringLiteral("no track of the album could be measured");
    return out->album.measured();
}

QByteArray VXAlbumPrintOut(const VXAlbumLoudness &album) { return albumText(album); }

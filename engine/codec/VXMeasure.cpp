// Measuring files with the meter: in the worker when there is one (decoding
// a damaged file can crash), else here; one file, or an album's tracks
// together.

#include "engine/codec/VXLoudnessMeter.h"
#include "engine/codec/VXMeasurePrivate.h"

#include "engine/codec/VXCancel.h"
#include "engine/codec/VXLibav.h"
#include "engine/codec/VXProbe.h"
#include "engine/codec/VXWorker.h"

#include <algorithm>
#include <cstdlib>

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

bool VXMeasureFile(const QString &path, int flags, VXLoudness *out, QString *why, const VXCancel *cancel,
                   std::map<int, VXLoudness> *others)
{
    return vx::measure(path, flags, out, why, cancel, others, {});
}

bool vx::measure(const QString &path, int flags, VXLoudness *out, QString *why, const VXCancel *cancel,
                 std::map<int, VXLoudness> *others, const std::function<void(int)> &progress)
{
    if (!vx::workerProgram().isEmpty()) {
        // Decoding the result can crash like any decoding: in the child too.
        vx::WorkerRun run({QStringLiteral("measure"), path, QString::number(flags)}, 600.0);
        const VXCancel::Stopper stopper = VXCancel::onCancel(cancel, [&run] { run.cancel(); });
        QByteArray printOut;
        const vx::WorkerRun::Outcome outcome
            = run.run({progress, [&](int, const QByteArray &bytes) { printOut = bytes; }});
        *out = outcome.loudness;
        *why = outcome.cancelled ? QStringLiteral("cancelled") : outcome.reason;
        if (!printOut.isEmpty())
            readCurveText(printOut, out);
        if ((flags & VXMeasureOtherStreams) && others)
            *others = outcome.streams;
        return outcome.completed && out->measured();
    }
    return vx::measureHere(path, flags, out, why, cancel, others, progress);
}

bool vx::measureHere(const QString &path, int flags, VXLoudness *out, QString *why, const VXCancel *cancel,
                     std::map<int, VXLoudness> *others, const std::function<void(int)> &progress,
                     std::unique_ptr<VXFrameMeter> *keep)
{
    const bool truePeak = flags & VXMeasureTruePeak;
    const bool curve = flags & VXMeasureCurve;
    const bool dualMono = flags & VXMeasureDualMono;
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
        m.meter = std::make_unique<VXFrameMeter>(truePeak, curve && index == best, dualMono);
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
    // Progress follows the best stream's position, 99 at most until the end.
    const AVStream *bestStream = input->streams[best];
    const int64_t startUs = input->start_time == AV_NOPTS_VALUE ? 0 : input->start_time;
    const int64_t lengthUs = progress ? input->duration : 0;
    int lastPercent = -1;
    while (av_read_frame(input.get(), packet.get()) >= 0) {
        if (cancel && cancel->isCancelled()) {
            *why = QStringLiteral("cancelled");
            return false;
        }
        if (lengthUs > 0 && packet->stream_index == best && packet->pts != AV_NOPTS_VALUE) {
            const int64_t atUs = av_rescale_q(packet->pts, bestStream->time_base, AV_TIME_BASE_Q) - startUs;
            const int percent = int(std::clamp<int64_t>(atUs * 100 / lengthUs, 0, 99));
            if (percent > lastPercent)
                progress(lastPercent = percent);
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
    if (progress)
        progress(100);
    return true;
}

namespace {

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

bool VXMeasureAlbum(const QStringList &paths, VXAlbumLoudness *out, QString *why, const VXCancel *cancel,
                    int flags)
{
    *out = {};
    flags = VXMeasureTruePeak | (flags & VXMeasureDualMono);
    if (!vx::workerProgram().isEmpty()) {
        // The album figure needs every track's meter state at once, and
        // states do not cross a pipe: one child measures the whole album and
        // sends back figures only. Albums still run side by side.
        vx::WorkerRun run(vx::measureAlbumCommand(paths, flags), 600.0 * double(std::max<qsizetype>(1, paths.size())));
        const VXCancel::Stopper stopper = VXCancel::onCancel(cancel, [&run] { run.cancel(); });
        QByteArray printOut;
        const vx::WorkerRun::Outcome outcome
            = run.run({nullptr, [&](int, const QByteArray &bytes) { printOut = bytes; }});
        if (!outcome.completed || !readAlbumText(printOut, paths.size(), out)) {
            *why = outcome.cancelled      ? QStringLiteral("cancelled")
                : outcome.reason.isEmpty() ? QStringLiteral("the album could not be measured")
                                           : outcome.reason;
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
        if (cancel && cancel->isCancelled()) {
            *why = QStringLiteral("cancelled");
            return false;
        }
        if (!vx::measureHere(path, flags, &l, &reason, cancel, nullptr, {}, &meter))
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

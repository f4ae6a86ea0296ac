// Measuring files with the meter, in this process: one file, or an album's
// tracks together. VXMeasureFile and VXMeasureAlbum hand the work to the
// program's backend, which is this code or a worker child running it.

#include "engine/codec/VXLoudnessMeter.h"
#include "engine/codec/VXMeasurePrivate.h"

#include "engine/codec/VXCancel.h"
#include "engine/codec/VXCodecBackend.h"
#include "engine/codec/VXLibav.h"
#include "engine/codec/VXProbe.h"

#include <algorithm>

namespace {

struct StreamMeter {
    int index = -1;
    vx::CodecPtr decoder;
    std::unique_ptr<VXFrameMeter> meter;
    bool broken = false;  // a further stream that fails is left out, not the file
};

// One file read through its meters: the best stream's, and with
// VXMeasureOtherStreams one for each further audio stream.
class MeterRun {
public:
    MeterRun(int flags, const VXCancel *cancel, const std::function<void(int)> &progress)
        : m_flags(flags), m_cancel(cancel), m_progress(progress) {}

    VXResult<> open(const QString &path)
    {
        QString why;
        int code = 0;
        m_input = vx::openInput(path, &why, &code);
        if (!m_input)
            return VXError::because(why, code);
        m_best = av_find_best_stream(m_input.get(), AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
        if (m_best < 0)
            return VXError::because(QStringLiteral("no decodable audio stream"));
        if (!openStream(m_best))
            return VXError::because(QStringLiteral("cannot decode %1")
                                        .arg(avcodec_get_name(m_input->streams[m_best]->codecpar->codec_id)));
        for (unsigned i = 0; (m_flags & VXMeasureOtherStreams) && i < m_input->nb_streams; ++i) {
            const AVStream *st = m_input->streams[i];
            if (int(i) != m_best && st->codecpar->codec_type == AVMEDIA_TYPE_AUDIO
                && !(st->disposition & AV_DISPOSITION_ATTACHED_PIC))
                openStream(int(i));
        }
        m_meterOf.assign(m_input->nb_streams, -1);
        for (size_t m = 0; m < m_meters.size(); ++m)
            m_meterOf[size_t(m_meters[m].index)] = int(m);
        for (unsigned i = 0; i < m_input->nb_streams; ++i)
            m_input->streams[i]->discard = m_meterOf[i] >= 0 ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
        return {};
    }

    VXResult<> read()
    {
        auto packet = vx::makePacket();
        if (!packet || !m_frame)
            return VXError::because(QStringLiteral("out of memory"));
        while (av_read_frame(m_input.get(), packet.get()) >= 0) {
            if (m_cancel && m_cancel->isCancelled())
                return VXCancelledError();
            report(packet.get());
            const int si = packet->stream_index;
            const int m = si < int(m_meterOf.size()) ? m_meterOf[size_t(si)] : -1;
            if (m >= 0 && !m_meters[size_t(m)].broken)
                avcodec_send_packet(m_meters[size_t(m)].decoder.get(), packet.get());  // corrupt packets are skipped, as in playback
            av_packet_unref(packet.get());
            if (m >= 0 && !receive(m_meters[size_t(m)]))
                return VXError::because(QStringLiteral("cannot measure the decoded audio"));
        }
        for (StreamMeter &m : m_meters) {
            avcodec_send_packet(m.decoder.get(), nullptr);
            if (!receive(m))
                return VXError::because(QStringLiteral("cannot measure the decoded audio"));
        }
        return {};
    }

    VXResult<vx::Measurement> finish(std::unique_ptr<VXFrameMeter> *keep)
    {
        vx::Measurement result;
        result.loudness = m_meters.front().meter->finish();
        if (!result.loudness.measured())
            return VXError::because(QStringLiteral("no audio decoded"));
        for (size_t m = 1; m < m_meters.size(); ++m) {
            const VXLoudness l = m_meters[m].meter->finish();
            if (!m_meters[m].broken && l.measured())
                result.others[m_meters[m].index] = l;
        }
        if (keep)
            *keep = std::move(m_meters.front().meter);
        if (m_progress)
            m_progress(100);
        return result;
    }

private:
    bool openStream(int index)
    {
        const AVStream *st = m_input->streams[index];
        const AVCodec *codec = avcodec_find_decoder(st->codecpar->codec_id);
        StreamMeter m;
        m.index = index;
        m.decoder.reset(codec ? avcodec_alloc_context3(codec) : nullptr);
        if (!m.decoder || avcodec_parameters_to_context(m.decoder.get(), st->codecpar) < 0
            || avcodec_open2(m.decoder.get(), codec, nullptr) < 0)
            return false;
        m.meter = std::make_unique<VXFrameMeter>(m_flags & VXMeasureTruePeak, (m_flags & VXMeasureCurve) && index == m_best,
                                                 m_flags & VXMeasureDualMono);
        m_meters.push_back(std::move(m));
        return true;
    }

    bool receive(StreamMeter &m)
    {
        int err;
        while (!m.broken
               && ((err = avcodec_receive_frame(m.decoder.get(), m_frame.get())) >= 0 || err == AVERROR_INVALIDDATA)) {
            if (err >= 0) {
                m.broken = !m.meter->add(m_frame.get());
                av_frame_unref(m_frame.get());
            }
        }
        return !m_meters.front().broken;
    }

    // Progress follows the best stream's position, 99 at most until the end.
    void report(const AVPacket *packet)
    {
        const int64_t lengthUs = m_progress ? m_input->duration : 0;
        if (lengthUs <= 0 || packet->stream_index != m_best || packet->pts == AV_NOPTS_VALUE)
            return;
        const int64_t startUs = m_input->start_time == AV_NOPTS_VALUE ? 0 : m_input->start_time;
        const int64_t atUs = av_rescale_q(packet->pts, m_input->streams[m_best]->time_base, AV_TIME_BASE_Q) - startUs;
        const int percent = int(std::clamp<int64_t>(atUs * 100 / lengthUs, 0, 99));
        if (percent > m_lastPercent)
            m_progress(m_lastPercent = percent);
    }

    int m_flags;
    const VXCancel *m_cancel;
    const std::function<void(int)> &m_progress;
    vx::InputPtr m_input;
    int m_best = -1;
    std::vector<StreamMeter> m_meters;
    std::vector<int> m_meterOf;
    vx::FramePtr m_frame = vx::makeFrame();
    int m_lastPercent = -1;
};

} // namespace

VXResult<vx::Measurement> vx::measureHere(const QString &path, int flags, const VXCancel *cancel,
                                          const std::function<void(int)> &progress,
                                          std::unique_ptr<VXFrameMeter> *keep)
{
    MeterRun run(flags, cancel, progress);
    if (VXResult<> opened = run.open(path); !opened)
        return opened.error();
    if (VXResult<> read = run.read(); !read)
        return read.error();
    return run.finish(keep);
}

VXResult<VXAlbumLoudness> vx::measureAlbumHere(const QStringList &paths, int flags, const VXCancel *cancel)
{
    VXAlbumLoudness out;
    for (const QString &path : paths) {
        if (cancel && cancel->isCancelled())
            return VXCancelledError();
        const VXResult<Measurement> measured = measureHere(path, flags | VXMeasureCurve, cancel);
        out.tracks.push_back(measured ? measured->loudness : VXLoudness());
        out.reasons << measured.reason();
    }
    out.album = VXAlbumOf(out.tracks);
    return out;
}

VXResult<VXLoudness> VXMeasureFile(const QString &path, int flags, const VXCancel *cancel,
                                   std::map<int, VXLoudness> *others)
{
    const VXResult<vx::Measurement> measured = vx::codecBackend().measure(path, flags, cancel, {});
    if (!measured)
        return measured.error();
    if ((flags & VXMeasureOtherStreams) && others)
        *others = measured->others;
    return measured->loudness;
}

VXResult<VXAlbumLoudness> VXMeasureAlbum(const QStringList &paths, int flags, const VXCancel *cancel)
{
    flags = VXMeasureTruePeak | (flags & VXMeasureDualMono);
    VXResult<VXAlbumLoudness> measured = vx::codecBackend().measureAlbum(paths, flags, cancel);
    if (measured && !measured->album.measured())
        return VXError::because(QStringLiteral("no track of the album could be measured"));
    return measured;
}

// The in-process backend, and the choice of the program's backend.

#include "engine/codec/VXCodecBackend.h"

#include "engine/codec/VXCancel.h"
#include "engine/codec/VXCodecConstants.h"
#include "engine/codec/VXLibav.h"
#include "engine/codec/VXLog.h"
#include "engine/codec/VXMeasurePrivate.h"
#include "engine/codec/VXPipeline.h"
#include "engine/codec/VXProbe.h"

#include <atomic>

namespace vx {
namespace {

class InProcessBackend final : public CodecBackend {
public:
    VXResult<std::unique_ptr<Pipeline>> open(const QString &input, const QString &output) const override
    {
        VXResult<std::unique_ptr<Pipeline>> pipeline = Pipeline::open(input, output);
        if (!pipeline)
            VXLog(QStringLiteral("Cannot transcode %1: %2").arg(input, pipeline.reason()));
        return pipeline;
    }

    VXResult<TranscodeResult> transcode(const TranscodeRequest &request, std::unique_ptr<Pipeline> &pipeline,
                                        const VXCancel &cancel, const Progress &progress) const override
    {
        return vx::transcode(request, pipeline, cancel, progress);
    }

    VXResult<Measurement> measure(const QString &path, int flags, const VXCancel *cancel,
                                  const Progress &progress) const override
    {
        return measureHere(path, flags, cancel, progress);
    }

    VXResult<VXAlbumLoudness> measureAlbum(const QStringList &paths, int flags, const VXCancel *cancel) const override
    {
        return measureAlbumHere(paths, flags, cancel);
    }

    VXResult<ProbeResult> probe(const QString &path) const override;

    VXResult<LosslessResult> lossless(const LosslessRequest &request, const VXCancel *cancel) const override
    {
        return losslessHere(request, cancel);
    }

    VXResult<> play(const PlayRequest &request, const VXCancel &cancel, const PcmSink &sink) const override
    {
        return playHere(request, cancel, sink);
    }
};

VXResult<ProbeResult> InProcessBackend::probe(const QString &path) const
{
    if (hasDrmHeader(path))
        return probeError(AVERROR_PATCHWELCOME, QStringLiteral("The audio of %1 is DRM-protected").arg(path), true);
    QString why;
    int code = 0;
    InputPtr input = openInput(path, &why, &code);
    if (!input)
        return probeError(code, QStringLiteral("Cannot open %1: %2").arg(path, why));
    if (hasDrmStream(input.get()))
        return probeError(AVERROR_PATCHWELCOME, QStringLiteral("The audio of %1 is DRM-protected").arg(path), true);
    const int index = av_find_best_stream(input.get(), AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
    if (index < 0)
        return probeError(index, QStringLiteral("%1 has no decodable audio stream").arg(path));
    ProbeResult result;
    result.picture = coverArt(input.get());
    result.length = headerLength(input.get(), index);
    if (result.length == 0)
        result.length = packetLength(input.get(), index);
    if (result.length == 0)
        return probeError(AVERROR_INVALIDDATA, QStringLiteral("%1 holds no audio").arg(path));
    return result;
}

std::atomic<const CodecBackend *> chosen{nullptr};

} // namespace

const CodecBackend &inProcessBackend()
{
    static const InProcessBackend backend;
    return backend;
}

const CodecBackend &codecBackend()
{
    const CodecBackend *backend = chosen.load();
    return backend ? *backend : inProcessBackend();
}

void setCodecBackend(const CodecBackend &backend) { chosen.store(&backend); }

VXError probeError(int code, const QString &description, bool drm)
{
    VXError e;
    e.domain = QStringLiteral("VXCodec");
    e.code = code;
    e.description = description;
    if (drm)
        e.userInfo.insert(QLatin1String(VXTranscodingDRMProtected), true);
    return e;
}

} // namespace vx

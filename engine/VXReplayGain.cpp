#include "engine/VXReplayGain.h"

#include "engine/VXTagEditor.h"
#include "engine/VXTempDir.h"

#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <vector>

namespace {

using Fields = std::vector<std::pair<QString, QString>>;

// "-6.52 dB", "0.988553" and "-18.00 LUFS": the spellings players parse.
Fields replayGainFields(const VXReplayGain &g)
{
    Fields f;
    auto gain = [](double db) { return QStringLiteral("%1 dB").arg(db, 0, 'f', 2); };
    auto peak = [](double p) { return QString::number(p, 'f', 6); };
    f.emplace_back(QStringLiteral("REPLAYGAIN_TRACK_GAIN"), gain(g.trackGainDb));
    f.emplace_back(QStringLiteral("REPLAYGAIN_TRACK_PEAK"), peak(g.trackPeak));
    if (std::isfinite(g.albumGainDb)) {
        f.emplace_back(QStringLiteral("REPLAYGAIN_ALBUM_GAIN"), gain(g.albumGainDb));
        f.emplace_back(QStringLiteral("REPLAYGAIN_ALBUM_PEAK"), peak(g.albumPeak));
    }
    f.emplace_back(QStringLiteral("REPLAYGAIN_REFERENCE_LOUDNESS"),
                   QStringLiteral("%1 LUFS").arg(kVXReplayGainReference, 0, 'f', 2));
    return f;
}

// Opus players add R128_* to the header's output gain, relative to -23 LUFS
// in Q7.8; the header's gain is not ours to change.
Fields opusFields(const VXReplayGain &g)
{
    auto q78 = [](double rgGain) {
        const double db = rgGain + kVXOpusR128Reference - kVXReplayGainReference;
        return QString::number(int(std::clamp(std::lround(db * 256.0), -32768L, 32767L)));
    };
    Fields f{{QStringLiteral("R128_TRACK_GAIN"), q78(g.trackGainDb)}};
    if (std::isfinite(g.albumGainDb))
        f.emplace_back(QStringLiteral("R128_ALBUM_GAIN"), q78(g.albumGainDb));
    return f;
}

} // namespace

VXReplayGain VXReplayGainFor(const VXLoudness &track, const VXLoudness *album)
{
    VXReplayGain g;
    auto gain = [](double lufs) { return std::isfinite(lufs) ? kVXReplayGainReference - lufs : NAN; };
    auto amplitude = [](double dbtp) { return std::isfinite(dbtp) ? std::pow(10.0, dbtp / 20.0) : 0.0; };
    g.trackGainDb = gain(track.integrated);
    g.trackPeak = amplitude(track.truePeak);
    if (album) {
        g.albumGainDb = gain(album->integrated);
        g.albumPeak = amplitude(album->truePeak);
    }
    return g;
}

VXResult<> VXWriteReplayGainTags(const QString &path, const VXReplayGain &gains, const VXProvenance *provenance)
{
    if (!std::isfinite(gains.trackGainDb))
        return VXError::because(QStringLiteral("silent: no level to tag"));
    VXResult<VXTagEditor> tag = VXTagEditor::open(path, true);
    if (!tag && tag.error().code == VXTagEditor::kNoTagContainer)
        return VXError::because(QStringLiteral("ReplayGain tags cannot be written to .%1 files")
                                    .arg(QFileInfo(path).suffix().toLower()));
    if (!tag)
        return tag.error();
    for (const auto &[key, value] : tag->isOpus() ? opusFields(gains) : replayGainFields(gains))
        tag->set(key, value);
    if (provenance) {
        VXProvenance record = *provenance;
        if (tag->isOpus())
            record.targetLufs = kVXOpusR128Reference;
        tag->set(QString::fromLatin1(kVXProvenanceKey), record.format());
    }
    return tag->save();
}

VXPlacement::Result VXTagFile(const QString &input, const QString &outFolder, const VXReplayGain &gains,
                              const VXProvenance &provenance, bool keepModificationTime,
                              const VXPlacement::BeforePublish &beforePublish)
{
    const QFileInfo info(input);
    const QString base = info.completeBaseName();
    const QString ext = info.suffix();
    // TagLib knows a container by its name's extension: the copy keeps it.
    const QString staged = VXTempDir::reserveFile(base, ext);
    if (staged.isEmpty())
        return VXError::because(QStringLiteral("Cannot create a temporary file in %1").arg(VXTempDir::rootPath()));
    QFile::remove(staged);
    if (!QFile::copy(input, staged)) {
        QFile::remove(staged);
        return VXError::because(QStringLiteral("Cannot copy %1").arg(input));
    }
    QFile::setPermissions(staged, QFileDevice::ReadOwner | QFileDevice::WriteOwner);
    if (const VXResult<> written = VXWriteReplayGainTags(staged, gains, &provenance); !written) {
        QFile::remove(staged);
        return written.error();
    }
    VXPlacement::Result result = outFolder.isEmpty()
        ? VXPlacement::replaceFile(staged, input, keepModificationTime, beforePublish)
        : VXPlacement::placeInFolder(staged, outFolder, base, ext, beforePublish);
    QFile::remove(staged);  // gone already when it was moved; a failure leaves nothing behind
    return result;
}

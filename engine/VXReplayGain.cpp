#include "engine/VXReplayGain.h"

#include "engine/VXTempDir.h"

#include <QFile>
#include <QFileInfo>

#include <taglib/aifffile.h>
#include <taglib/asffile.h>
#include <taglib/flacfile.h>
#include <taglib/id3v2tag.h>
#include <taglib/mp4file.h>
#include <taglib/mpegfile.h>
#include <taglib/oggflacfile.h>
#include <taglib/opusfile.h>
#include <taglib/speexfile.h>
#include <taglib/textidentificationframe.h>
#include <taglib/vorbisfile.h>
#include <taglib/wavfile.h>
#include <taglib/xiphcomment.h>

#include <algorithm>
#include <functional>
#include <optional>
#include <vector>

namespace {

using Fields = std::vector<std::pair<TagLib::String, TagLib::String>>;

TagLib::String text(const QString &s) { return TagLib::String(s.toStdString(), TagLib::String::UTF8); }

// "-6.52 dB" and "0.988553": the spellings players parse.
Fields replayGainFields(const VXReplayGain &g)
{
    Fields f;
    auto gain = [](double db) { return text(QStringLiteral("%1 dB").arg(db, 0, 'f', 2)); };
    auto peak = [](double p) { return text(QString::number(p, 'f', 6)); };
    f.emplace_back("REPLAYGAIN_TRACK_GAIN", gain(g.trackGainDb));
    f.emplace_back("REPLAYGAIN_TRACK_PEAK", peak(g.trackPeak));
    if (std::isfinite(g.albumGainDb)) {
        f.emplace_back("REPLAYGAIN_ALBUM_GAIN", gain(g.albumGainDb));
        f.emplace_back("REPLAYGAIN_ALBUM_PEAK", peak(g.albumPeak));
    }
    return f;
}

// Opus players add R128_* to the header's output gain, relative to -23 LUFS
// in Q7.8; the header's gain is not ours to change.
Fields opusFields(const VXReplayGain &g)
{
    auto q78 = [](double rgGain) {
        const double db = rgGain + kVXOpusR128Reference - kVXReplayGainReference;
        return TagLib::String::number(int(std::clamp(std::lround(db * 256.0), -32768L, 32767L)));
    };
    Fields f{{"R128_TRACK_GAIN", q78(g.trackGainDb)}};
    if (std::isfinite(g.albumGainDb))
        f.emplace_back("R128_ALBUM_GAIN", q78(g.albumGainDb));
    return f;
}

void setXiph(TagLib::Ogg::XiphComment *tag, const Fields &fields)
{
    for (const auto &[key, value] : fields)
        tag->addField(key, value, true);
}

void setId3(TagLib::ID3v2::Tag *tag, const Fields &fields)
{
    for (const auto &[key, value] : fields) {
        while (auto *old = TagLib::ID3v2::UserTextIdentificationFrame::find(tag, key))
            tag->removeFrame(old);
        tag->addFrame(new TagLib::ID3v2::UserTextIdentificationFrame(key, TagLib::StringList(value)));
    }
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

namespace {

// One open and one save per container; false from save is a write error.
template <class File>
VXResult<> tagAndSave(File &file, const std::function<bool()> &tag)
{
    if (!file.isValid())
        return VXError::because(QStringLiteral("the tags cannot be read"));
    if (!tag())
        return VXError::because(QStringLiteral("the tags cannot be written"));
    return {};
}

// An .ogg may hold Opus, FLAC or Speex as well as Vorbis: each parser
// accepts only its own.
VXResult<> writeOgg(const char *name, const Fields &rg, const Fields &opus)
{
    {
        TagLib::Ogg::Vorbis::File f(name, false);
        if (f.isValid())
            return tagAndSave(f, [&] { setXiph(f.tag(), rg); return f.save(); });
    }
    {
        TagLib::Ogg::Opus::File f(name, false);
        if (f.isValid())
            return tagAndSave(f, [&] { setXiph(f.tag(), opus); return f.save(); });
    }
    {
        TagLib::Ogg::FLAC::File f(name, false);
        if (f.isValid())
            return tagAndSave(f, [&] { setXiph(f.tag(), rg); return f.save(); });
    }
    TagLib::Ogg::Speex::File f(name, false);
    return tagAndSave(f, [&] { setXiph(f.tag(), rg); return f.save(); });
}

// The containers whose tags are not Xiph comments: freeform atoms in MP4,
// attributes in ASF, ID3v2 in RIFF.
std::optional<VXResult<>> writeOther(const QString &ext, const char *name, const Fields &rg)
{
    if (ext == QLatin1String("m4a") || ext == QLatin1String("mp4") || ext == QLatin1String("m4b")
        || ext == QLatin1String("m4v") || ext == QLatin1String("mov") || ext == QLatin1String("3gp")) {
        TagLib::MP4::File f(name, false);
        return tagAndSave(f, [&] {
            for (const auto &[key, value] : rg)
                f.tag()->setItem("----:com.apple.iTunes:" + key, TagLib::MP4::Item(TagLib::StringList(value)));
            return f.save();
        });
    }
    if (ext == QLatin1String("wma") || ext == QLatin1String("asf") || ext == QLatin1String("wmv")) {
        TagLib::ASF::File f(name, false);
        return tagAndSave(f, [&] {
            for (const auto &[key, value] : rg)
                f.tag()->setAttribute(key, TagLib::ASF::Attribute(value));
            return f.save();
        });
    }
    if (ext == QLatin1String("wav")) {
        TagLib::RIFF::WAV::File f(name, false);
        return tagAndSave(f, [&] {
            setId3(f.ID3v2Tag(), rg);
            return f.save(TagLib::RIFF::WAV::File::ID3v2, TagLib::File::StripNone);
        });
    }
    if (ext == QLatin1String("aif") || ext == QLatin1String("aiff") || ext == QLatin1String("aifc")) {
        TagLib::RIFF::AIFF::File f(name, false);
        return tagAndSave(f, [&] { setId3(f.tag(), rg); return f.save(); });
    }
    return std::nullopt;
}

} // namespace

VXResult<> VXWriteReplayGainTags(const QString &path, const VXReplayGain &gains)
{
    if (!std::isfinite(gains.trackGainDb))
        return VXError::because(QStringLiteral("silent: no level to tag"));
    const QByteArray name = QFile::encodeName(path);
    const QString ext = QFileInfo(path).suffix().toLower();
    const Fields rg = replayGainFields(gains);
    if (ext == QLatin1String("mp3") || ext == QLatin1String("mp2")) {
        TagLib::MPEG::File f(name.constData(), false);
        return tagAndSave(f, [&] {
            setId3(f.ID3v2Tag(true), rg);
            return f.save(TagLib::MPEG::File::ID3v2, TagLib::File::StripNone);
        });
    }
    if (ext == QLatin1String("flac")) {
        TagLib::FLAC::File f(name.constData(), false);
        return tagAndSave(f, [&] { setXiph(f.xiphComment(true), rg); return f.save(); });
    }
    if (ext == QLatin1String("opus")) {
        TagLib::Ogg::Opus::File f(name.constData(), false);
        return tagAndSave(f, [&] { setXiph(f.tag(), opusFields(gains)); return f.save(); });
    }
    if (ext == QLatin1String("ogg") || ext == QLatin1String("oga"))
        return writeOgg(name.constData(), rg, opusFields(gains));
    if (std::optional<VXResult<>> written = writeOther(ext, name.constData(), rg))
        return *written;
    return VXError::because(QStringLiteral("ReplayGain tags cannot be written to .%1 files").arg(ext));
}

VXPlacement::Result VXTagFile(const QString &input, const QString &outFolder, const VXReplayGain &gains,
                              bool keepModificationTime, const VXPlacement::BeforePublish &beforePublish)
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
    if (const VXResult<> written = VXWriteReplayGainTags(staged, gains); !written) {
        QFile::remove(staged);
        return written.error();
    }
    VXPlacement::Result result = outFolder.isEmpty()
        ? VXPlacement::replaceFile(staged, input, keepModificationTime, beforePublish)
        : VXPlacement::placeInFolder(staged, outFolder, base, ext, beforePublish);
    QFile::remove(staged);  // gone already when it was moved; a failure leaves nothing behind
    return result;
}

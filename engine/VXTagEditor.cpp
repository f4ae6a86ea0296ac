#include "engine/VXTagEditor.h"

#include <QFile>
#include <QFileInfo>

#include <taglib/aifffile.h>
#include <taglib/asffile.h>
#include <taglib/flacfile.h>
#include <taglib/id3v2framefactory.h>
#include <taglib/id3v2tag.h>
#include <taglib/mp4file.h>
#include <taglib/mpegfile.h>
#include <taglib/oggflacfile.h>
#include <taglib/opusfile.h>
#include <taglib/speexfile.h>
#include <taglib/textidentificationframe.h>
#include <taglib/tfilestream.h>
#include <taglib/vorbisfile.h>
#include <taglib/wavfile.h>
#include <taglib/xiphcomment.h>

#include <functional>
#include <variant>

struct VXTagEditor::Impl {
    // Declared before the file, which reads through it, so it goes after it.
    std::unique_ptr<TagLib::FileStream> stream;
    std::unique_ptr<TagLib::File> file;
    std::variant<TagLib::ID3v2::Tag *, TagLib::Ogg::XiphComment *, TagLib::MP4::Tag *, TagLib::ASF::Tag *> tag;
    std::function<bool()> save;
    bool opus = false;
};

namespace {

using Impl = VXTagEditor::Impl;
// A stream of its own for each parser tried: one that refused the file
// leaves the position anywhere.
using FreshStream = std::function<TagLib::FileStream *()>;

template <class... F>
struct Overloaded : F... {
    using F::operator()...;
};
template <class... F>
Overloaded(F...) -> Overloaded<F...>;

TagLib::String text(const QString &s) { return TagLib::String(s.toStdString(), TagLib::String::UTF8); }
QString qtext(const TagLib::String &s) { return QString::fromStdString(s.to8Bit(true)); }

// Free keys live in "----" atoms under iTunes' mean, where players and
// taggers look for them.
TagLib::String mp4Key(const QString &key) { return "----:com.apple.iTunes:" + text(key); }

template <class File, class... Args>
File *tryOpen(Impl &d, TagLib::FileStream *stream, Args... args)
{
    auto file = std::make_unique<File>(stream, args...);
    if (!file->isValid())
        return nullptr;
    File *f = file.get();
    d.file = std::move(file);
    return f;
}

template <class File>
bool useXiph(Impl &d, File *f, TagLib::Ogg::XiphComment *comment)
{
    if (!f || !comment)
        return false;
    d.tag = comment;
    d.save = [f] { return f->save(); };
    return true;
}

// An .ogg may hold Vorbis, Opus, FLAC or Speex: each parser accepts only its own.
bool openOgg(Impl &d, const FreshStream &fresh, bool opusOnly)
{
    if (!opusOnly) {
        if (auto *f = tryOpen<TagLib::Ogg::Vorbis::File>(d, fresh(), false))
            return useXiph(d, f, f->tag());
    }
    if (auto *f = tryOpen<TagLib::Ogg::Opus::File>(d, fresh(), false)) {
        d.opus = true;
        return useXiph(d, f, f->tag());
    }
    if (opusOnly)
        return false;
    if (auto *f = tryOpen<TagLib::Ogg::FLAC::File>(d, fresh(), false))
        return useXiph(d, f, f->tag());
    auto *f = tryOpen<TagLib::Ogg::Speex::File>(d, fresh(), false);
    return f && useXiph(d, f, f->tag());
}

bool openId3(Impl &d, const QString &ext, TagLib::FileStream *stream)
{
    if (ext == QLatin1String("mp3") || ext == QLatin1String("mp2")) {
        auto *f = tryOpen<TagLib::MPEG::File>(d, stream, TagLib::ID3v2::FrameFactory::instance(), false);
        if (!f)
            return false;
        d.tag = f->ID3v2Tag(true);
        d.save = [f] { return f->save(TagLib::MPEG::File::ID3v2, TagLib::File::StripNone); };
        return true;
    }
    if (ext == QLatin1String("wav")) {
        auto *f = tryOpen<TagLib::RIFF::WAV::File>(d, stream, false);
        if (!f || !f->ID3v2Tag())
            return false;
        d.tag = f->ID3v2Tag();
        d.save = [f] { return f->save(TagLib::RIFF::WAV::File::ID3v2, TagLib::File::StripNone); };
        return true;
    }
    auto *f = tryOpen<TagLib::RIFF::AIFF::File>(d, stream, false);
    if (!f || !f->tag())
        return false;
    d.tag = f->tag();
    d.save = [f] { return f->save(); };
    return true;
}

enum class Container { None, Id3, Flac, Ogg, Opus, Mp4, Asf };

Container containerOf(const QString &ext)
{
    static const std::pair<const char *, Container> kByExtension[] = {
        {"mp3", Container::Id3}, {"mp2", Container::Id3}, {"wav", Container::Id3},
        {"aif", Container::Id3}, {"aiff", Container::Id3}, {"aifc", Container::Id3},
        {"flac", Container::Flac}, {"ogg", Container::Ogg}, {"oga", Container::Ogg},
        {"opus", Container::Opus}, {"m4a", Container::Mp4}, {"mp4", Container::Mp4},
        {"m4b", Container::Mp4}, {"m4v", Container::Mp4}, {"mov", Container::Mp4},
        {"3gp", Container::Mp4}, {"wma", Container::Asf}, {"asf", Container::Asf},
        {"wmv", Container::Asf},
    };
    for (const auto &[name, container] : kByExtension)
        if (ext == QLatin1String(name))
            return container;
    return Container::None;
}

bool openContainer(Impl &d, Container container, const QString &ext, const FreshStream &fresh)
{
    switch (container) {
    case Container::Id3:
        return openId3(d, ext, fresh());
    case Container::Flac: {
        auto *f = tryOpen<TagLib::FLAC::File>(d, fresh(), TagLib::ID3v2::FrameFactory::instance(), false);
        return f && useXiph(d, f, f->xiphComment(true));
    }
    case Container::Ogg:
    case Container::Opus:
        return openOgg(d, fresh, container == Container::Opus);
    case Container::Mp4: {
        auto *f = tryOpen<TagLib::MP4::File>(d, fresh(), false);
        if (!f || !f->tag())
            return false;
        d.tag = f->tag();
        d.save = [f] { return f->save(); };
        return true;
    }
    case Container::Asf: {
        auto *f = tryOpen<TagLib::ASF::File>(d, fresh(), false);
        if (!f || !f->tag())
            return false;
        d.tag = f->tag();
        d.save = [f] { return f->save(); };
        return true;
    }
    case Container::None:
        break;
    }
    return false;
}

} // namespace

VXTagEditor::VXTagEditor(std::unique_ptr<Impl> impl) : d(std::move(impl)) {}
VXTagEditor::VXTagEditor(VXTagEditor &&) noexcept = default;
VXTagEditor &VXTagEditor::operator=(VXTagEditor &&) noexcept = default;
VXTagEditor::~VXTagEditor() = default;

VXResult<VXTagEditor> VXTagEditor::open(const QString &path, bool writable)
{
    // TagLib knows a container by its name's extension.
    const QString ext = QFileInfo(path).suffix().toLower();
    const Container container = containerOf(ext);
    if (container == Container::None)
        return VXError::because(QStringLiteral(".%1 files have no tags").arg(ext), kNoTagContainer);
    const QByteArray name = QFile::encodeName(path);
    auto d = std::make_unique<Impl>();
    Impl *raw = d.get();
    const FreshStream fresh = [raw, &name, writable] {
        raw->file.reset();
        raw->stream = std::make_unique<TagLib::FileStream>(name.constData(), !writable);
        return raw->stream.get();
    };
    if (!openContainer(*d, container, ext, fresh))
        return VXError::because(QStringLiteral("the tags cannot be read"));
    return VXTagEditor(std::move(d));
}

bool VXTagEditor::isOpus() const { return d->opus; }

QString VXTagEditor::value(const QString &key) const
{
    return std::visit(Overloaded{
        [&](TagLib::ID3v2::Tag *tag) {
            // A TXXX frame's fields are its description, then its values.
            const auto *frame = TagLib::ID3v2::UserTextIdentificationFrame::find(tag, text(key));
            const TagLib::StringList fields = frame ? frame->fieldList() : TagLib::StringList();
            return fields.size() > 1 ? qtext(fields[1]) : QString();
        },
        [&](TagLib::Ogg::XiphComment *tag) {
            const TagLib::Ogg::FieldListMap &fields = tag->fieldListMap();
            const auto it = fields.find(text(key.toUpper()));
            return it != fields.end() && !it->second.isEmpty() ? qtext(it->second.front()) : QString();
        },
        [&](TagLib::MP4::Tag *tag) {
            if (!tag->contains(mp4Key(key)))
                return QString();
            const TagLib::StringList values = tag->item(mp4Key(key)).toStringList();
            return values.isEmpty() ? QString() : qtext(values.front());
        },
        [&](TagLib::ASF::Tag *tag) {
            const TagLib::ASF::AttributeList values = tag->attribute(text(key));
            return values.isEmpty() ? QString() : qtext(values.front().toString());
        },
    }, d->tag);
}

void VXTagEditor::set(const QString &key, const QString &value)
{
    const TagLib::String k = text(key), v = text(value);
    std::visit(Overloaded{
        [&](TagLib::ID3v2::Tag *tag) {
            while (auto *old = TagLib::ID3v2::UserTextIdentificationFrame::find(tag, k))
                tag->removeFrame(old);
            tag->addFrame(new TagLib::ID3v2::UserTextIdentificationFrame(k, TagLib::StringList(v)));
        },
        [&](TagLib::Ogg::XiphComment *tag) { tag->addField(k, v, true); },
        [&](TagLib::MP4::Tag *tag) { tag->setItem(mp4Key(key), TagLib::MP4::Item(TagLib::StringList(v))); },
        [&](TagLib::ASF::Tag *tag) { tag->setAttribute(k, TagLib::ASF::Attribute(v)); },
    }, d->tag);
}

void VXTagEditor::remove(const QString &key)
{
    const TagLib::String k = text(key);
    std::visit(Overloaded{
        [&](TagLib::ID3v2::Tag *tag) {
            while (auto *old = TagLib::ID3v2::UserTextIdentificationFrame::find(tag, k))
                tag->removeFrame(old);
        },
        [&](TagLib::Ogg::XiphComment *tag) { tag->removeFields(k); },
        [&](TagLib::MP4::Tag *tag) { tag->removeItem(mp4Key(key)); },
        [&](TagLib::ASF::Tag *tag) { tag->removeItem(k); },
    }, d->tag);
}

VXResult<> VXTagEditor::save()
{
    if (!d->save())
        return VXError::because(QStringLiteral("the tags cannot be written"));
    return {};
}

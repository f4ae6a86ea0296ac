#include "engine/VXLosslessTag.h"

#include <QFile>
#include <QFileInfo>
#include <QStringList>
#include <functional>

#include <taglib/id3v2tag.h>
#include <taglib/mp4file.h>
#include <taglib/mpegfile.h>
#include <taglib/opusfile.h>
#include <taglib/textidentificationframe.h>
#include <taglib/xiphcomment.h>

namespace {

enum class Container { None, Mpeg, Opus, Mp4 };

Container containerOf(const QString &path)
{
    const QString ext = QFileInfo(path).suffix().toLower();
    if (ext == QLatin1String("mp3"))
        return Container::Mpeg;
    if (ext == QLatin1String("opus") || ext == QLatin1String("ogg") || ext == QLatin1String("oga"))
        return Container::Opus;
    if (ext == QLatin1String("m4a") || ext == QLatin1String("mp4") || ext == QLatin1String("m4v")
        || ext == QLatin1String("mov") || ext == QLatin1String("m4b"))
        return Container::Mp4;
    return Container::None;
}

const TagLib::String kKey(kVXLosslessTag);
const TagLib::String kMp4Key = "----:com.apple.iTunes:" + kKey;
const char *const kR128[] = {"R128_TRACK_GAIN", "R128_ALBUM_GAIN"};

TagLib::String text(const QString &s) { return TagLib::String(s.toStdString(), TagLib::String::UTF8); }
QString qtext(const TagLib::String &s) { return QString::fromStdString(s.to8Bit(true)); }

VXError cannot(const char *what) { return VXError::because(QStringLiteral("the record of the gain cannot be %1").arg(QLatin1String(what))); }

// The record with the R128 tags it keeps: "r128_track_gain=-512".
QString withR128(QString record, const TagLib::Ogg::XiphComment &tag)
{
    if (record.contains(QLatin1String(";r128_")))
        return record;  // kept by an earlier change: those are the originals
    for (const char *key : kR128) {
        const TagLib::Ogg::FieldListMap fields = tag.fieldListMap();
        if (fields.contains(key) && !fields[key].isEmpty())
            record += QStringLiteral(";%1=%2").arg(QString::fromLatin1(key).toLower(), qtext(fields[key].front()));
    }
    return record;
}

template <class F>
VXResult<> editAndSave(F &file, const std::function<void()> &edit, bool save)
{
    if (!file.isValid())
        return cannot("read");
    edit();
    if (save && !file.save())
        return cannot("written");
    return {};
}

} // namespace

bool VXLosslessTaggable(const QString &path) { return containerOf(path) != Container::None; }

QString VXReadLosslessRecord(const QString &path)
{
    const QByteArray name = QFile::encodeName(path);
    switch (containerOf(path)) {
    case Container::Mpeg: {
        TagLib::MPEG::File f(name.constData(), false);
        if (auto *tag = f.isValid() ? f.ID3v2Tag() : nullptr)
            if (auto *frame = TagLib::ID3v2::UserTextIdentificationFrame::find(tag, kKey))
                return frame->fieldList().size() > 1 ? qtext(frame->fieldList()[1]) : QString();
        return {};
    }
    case Container::Opus: {
        TagLib::Ogg::Opus::File f(name.constData(), false);
        if (!f.isValid() || !f.tag())
            return {};
        const TagLib::Ogg::FieldListMap fields = f.tag()->fieldListMap();
        return fields.contains(kKey) && !fields[kKey].isEmpty() ? qtext(fields[kKey].front()) : QString();
    }
    case Container::Mp4: {
        TagLib::MP4::File f(name.constData(), false);
        if (!f.isValid() || !f.tag() || !f.tag()->contains(kMp4Key))
            return {};
        const TagLib::StringList values = f.tag()->item(kMp4Key).toStringList();
        return values.isEmpty() ? QString() : qtext(values.front());
    }
    case Container::None: break;
    }
    return {};
}

VXResult<> VXWriteLosslessRecord(const QString &path, const QString &record, bool keepR128)
{
    const QByteArray name = QFile::encodeName(path);
    switch (containerOf(path)) {
    case Container::Mpeg: {
        TagLib::MPEG::File f(name.constData(), false);
        if (!f.isValid())
            return cannot("read");
        TagLib::ID3v2::Tag *tag = f.ID3v2Tag(true);
        while (auto *old = TagLib::ID3v2::UserTextIdentificationFrame::find(tag, kKey))
            tag->removeFrame(old);
        tag->addFrame(new TagLib::ID3v2::UserTextIdentificationFrame(kKey, TagLib::StringList(text(record))));
        return f.save(TagLib::MPEG::File::ID3v2, TagLib::File::StripNone) ? VXResult<>() : cannot("written");
    }
    case Container::Opus: {
        TagLib::Ogg::Opus::File f(name.constData(), false);
        return editAndSave(f, [&] {
            TagLib::Ogg::XiphComment *tag = f.tag();
            const QString full = withR128(record, *tag);
            if (!keepR128)
                for (const char *key : kR128)
                    tag->removeFields(key);
            tag->addField(kKey, text(full), true);
        }, true);
    }
    case Container::Mp4: {
        TagLib::MP4::File f(name.constData(), false);
        return editAndSave(f, [&] { f.tag()->setItem(kMp4Key, TagLib::MP4::Item(TagLib::StringList(text(record)))); }, true);
    }
    case Container::None: break;
    }
    return VXError::because(QStringLiteral("no tag of this container can record the gain"));
}

VXResult<> VXRemoveLosslessRecord(const QString &path, const QString &record)
{
    const QByteArray name = QFile::encodeName(path);
    switch (containerOf(path)) {
    case Container::Mpeg: {
        TagLib::MPEG::File f(name.constData(), false);
        if (!f.isValid())
            return cannot("read");
        if (TagLib::ID3v2::Tag *tag = f.ID3v2Tag())
            while (auto *old = TagLib::ID3v2::UserTextIdentificationFrame::find(tag, kKey))
                tag->removeFrame(old);
        return f.save(TagLib::MPEG::File::ID3v2, TagLib::File::StripNone) ? VXResult<>() : cannot("removed");
    }
    case Container::Opus: {
        TagLib::Ogg::Opus::File f(name.constData(), false);
        return editAndSave(f, [&] {
            TagLib::Ogg::XiphComment *tag = f.tag();
            tag->removeFields(kKey);
            // Whatever R128 gains came since were relative to the header gain now undone.
            for (const char *key : kR128)
                tag->removeFields(key);
            for (const QString &part : record.split(QLatin1Char(';'))) {
                for (const char *key : kR128) {
                    const QString prefix = QString::fromLatin1(key).toLower() + QLatin1Char('=');
                    if (part.startsWith(prefix))
                        tag->addField(key, text(part.mid(prefix.size())), true);
                }
            }
        }, true);
    }
    case Container::Mp4: {
        TagLib::MP4::File f(name.constData(), false);
        return editAndSave(f, [&] { f.tag()->removeItem(kMp4Key); }, true);
    }
    case Container::None: break;
    }
    return VXError::because(QStringLiteral("no tag of this container can record the gain"));
}

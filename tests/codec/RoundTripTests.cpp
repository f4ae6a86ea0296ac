#include "engine/codec/VXCodecConstants.h"
#include "engine/codec/VXDemuxerContext.h"
#include "tests/codec/CodecTestUtil.h"

#include <QDir>
#include <QJsonArray>
#include <gtest/gtest.h>

using namespace codectest;

namespace {

QJsonObject streamOf(const QJsonObject &probe, const QString &type, bool picture)
{
    const QJsonArray streams = probe["streams"].toArray();
    for (const QJsonValue &v : streams) {
        const QJsonObject s = v.toObject();
        const bool isPicture = s["disposition"].toObject()["attached_pic"].toInt() == 1;
        if (s["codec_type"].toString() == type && isPicture == picture)
            return s;
    }
    return {};
}

class RoundTrip : public ::testing::TestWithParam<fixtures::Format> {};

// A transcoding without filters gives back the same file in every respect
// the user can see: format, tags, art, video, length and level.
TEST_P(RoundTrip, KeepsFormatTagsArtVideoAndLevel)
{
    const fixtures::Format f = GetParam();
    const QString in = corpusFile(f.variant);
    ASSERT_FALSE(in.isEmpty());
    QDir(scratchDir()).mkpath("roundtrip");
    const QString out = QDir(scratchDir()).filePath("roundtrip/" + f.variant + "." + f.ext.toUpper());

    auto t = VXTranscoding::initWithInput(in, out);
    ASSERT_TRUE(t);
    ASSERT_EQ(runToEnd(*t), VXTranscodingCompleted);
    t.reset();

    const QJsonObject before = ffprobe(in), after = ffprobe(out);
    const QJsonObject a = streamOf(after, "audio", false), b = streamOf(before, "audio", false);
    EXPECT_EQ(a["codec_name"].toString().toStdString(), f.codec.toStdString());
    EXPECT_EQ(a["sample_rate"].toString().toInt(), f.sampleRate);
    EXPECT_EQ(a["channels"].toInt(), f.channels);
    EXPECT_EQ(a["channel_layout"], b["channel_layout"]);
    EXPECT_EQ(a["sample_fmt"], b["sample_fmt"]);
    EXPECT_EQ(a["bits_per_raw_sample"], b["bits_per_raw_sample"]);
    if (f.bitsPerSample == 0 && b.contains("bit_rate")) {
        const double rate = b["bit_rate"].toString().toDouble();
        EXPECT_NEAR(a["bit_rate"].toString().toDouble(), rate, rate * 0.1);
    }
    // Within two AAC frames: encoders add their own priming.
    EXPECT_NEAR(after["format"].toObject()["duration"].toString().toDouble(),
                before["format"].toObject()["duration"].toString().toDouble(), 0.05);

    const QVariantMap tags = allTags(after);
    if (f.hasTags) {
        EXPECT_EQ(tags.value("title").toString(), "Evenloud " + f.variant);
        EXPECT_EQ(tags.value("artist").toString(), "Fixture Artist");
        EXPECT_EQ(tags.value("album").toString(), "Fixture Album");
    }

    auto ctx = VXDemuxerContext::initWithFilename(out, nullptr);
    ASSERT_TRUE(ctx);
    auto picture = ctx->attachPicture();
    ASSERT_EQ(bool(picture), f.hasCover);
    if (picture) {
        EXPECT_EQ(picture->encoded(), VXDemuxerContext::initWithFilename(in, nullptr)->attachPicture()->encoded());
    }

    const QJsonObject video = streamOf(after, "video", false);
    EXPECT_EQ(!video.isEmpty(), f.hasVideo);
    if (f.hasVideo) {
        const QJsonObject original = streamOf(before, "video", false);
        EXPECT_EQ(video["codec_name"], original["codec_name"]);
        EXPECT_EQ(video["nb_frames"], original["nb_frames"]);
        EXPECT_EQ(video["width"], original["width"]);
    }

    const fixtures::Loudness levelIn = fixtures::measureLoudness(in), levelOut = fixtures::measureLoudness(out);
    ASSERT_TRUE(levelIn.ok && levelOut.ok);
    // Lossy codecs shift a short file's gating blocks by their delay.
    EXPECT_NEAR(levelOut.integrated, levelIn.integrated, f.bitsPerSample ? 0.05 : 0.5);
}

INSTANTIATE_TEST_SUITE_P(Formats, RoundTrip, ::testing::ValuesIn(fixtures::formats()), variantName);

TEST(RoundTrip, ChaptersAreCopied)
{
    const QString dir = scratchDir();
    const QString meta = QDir(dir).filePath("chapters.txt");
    QFile file(meta);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(";FFMETADATA1\n[CHAPTER]\nTIMEBASE=1/1000\nSTART=0\nEND=1500\ntitle=Intro\n"
               "[CHAPTER]\nTIMEBASE=1/1000\nSTART=1500\nEND=3000\ntitle=Outro\n");
    file.close();
    const QString in = QDir(dir).filePath("chapters.m4a");
    ASSERT_TRUE(fixtures::run("ffmpeg", {"-v", "error", "-y", "-i", corpusFile("m4a-aac"), "-i", meta, "-map", "0:a",
                                         "-map_chapters", "1", "-c", "copy", in}));
    const QString out = QDir(dir).filePath("chapters-out.m4a");
    auto t = VXTranscoding::initWithInput(in, out);
    ASSERT_TRUE(t);
    ASSERT_EQ(runToEnd(*t), VXTranscodingCompleted);
    t.reset();
    QString listing;
    fixtures::run("ffprobe", {"-v", "error", "-show_chapters", "-of", "csv", out}, &listing);
    EXPECT_TRUE(listing.contains("Intro") && listing.contains("Outro")) << listing.toStdString();
}

} // namespace

// A file prepared for streaming keeps its index in front; one without stays so.
TEST(RoundTrip, IndexKeepsItsPlace)
{
    const QString dir = scratchDir();
    const auto indexFirst = [](const QString &path) {
        QFile file(path);
        const QByteArray bytes = file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
        return bytes.indexOf("moov") >= 0 && bytes.indexOf("moov") < bytes.indexOf("mdat");
    };
    const QString streaming = QDir(dir).filePath("streaming.mp4");
    ASSERT_TRUE(fixtures::run("ffmpeg", {"-v", "error", "-y", "-i", corpusFile("mp4-h264"), "-c", "copy", "-movflags",
                                         "+faststart", streaming}));
    for (const QString &in : {streaming, corpusFile("mp4-h264")}) {
        const QString out = in + ".out.mp4";
        auto t = VXTranscoding::initWithInput(in, out);
        ASSERT_TRUE(t);
        ASSERT_EQ(runToEnd(*t), VXTranscodingCompleted);
        t.reset();
        EXPECT_EQ(indexFirst(out), indexFirst(in)) << in.toStdString();
    }
    EXPECT_TRUE(indexFirst(streaming));
}

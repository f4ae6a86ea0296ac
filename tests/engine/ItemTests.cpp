#include "EngineTestUtil.h"

#include "engine/VXAudioGain.h"
#include "engine/codec/VXCodecConstants.h"

#include <QDir>
#include <QFile>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <cmath>
#include <gtest/gtest.h>
#include <limits>

using namespace enginetest;

namespace {

class ItemTest : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        s_dir = new QTemporaryDir;
        s_wav = makeWav(s_dir->path(), QStringLiteral("tone.wav"), 1.0);
        // The naming rules are about an input whose extension is upper case.
        s_mp3 = fixtures::makeAudio(s_dir->path(), QStringLiteral("Track.MP3"), 0.5, {QStringLiteral("-c:a"), QStringLiteral("libmp3lame")});
    }
    static void TearDownTestSuite() { delete s_dir; }

    static VXAudioGainPtr make(const QString &path)
    {
        VXError error;
        return VXAudioGain::initWithFile(path, QStringLiteral("/out"), &error);
    }

    static QTemporaryDir *s_dir;
    static QString s_wav;
    static QString s_mp3;
};
QTemporaryDir *ItemTest::s_dir = nullptr;
QString ItemTest::s_wav;
QString ItemTest::s_mp3;

} // namespace

TEST(ItemFormat, SizeText)
{
    const struct {
        quint64 bytes;
        const char *text;
    } cases[] = {
        {0, "0B"},
        {1023, "1023B"},
        {1024, "1.00KB"},
        {1048575, "1024.00KB"},
        {1048576, "1.00MB"},
        {1610612736, "1536.00MB"},
        // Converted as unsigned: the top bit must not make it negative.
        {std::numeric_limits<quint64>::max(), "17592186044416.00MB"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(VXAudioGain::formatSize(c.bytes), QString::fromLatin1(c.text)) << c.bytes;
}

TEST(ItemFormat, DurationText)
{
    const struct {
        quint64 ticks;
        const char *text;
    } cases[] = {
        {0, "00:00"},
        {61 * VXTimebase, "01:01"},
        {3599 * VXTimebase, "59:59"},
        {3599 * VXTimebase + VXTimebase * 9 / 10, "59:59"},
        {3600 * VXTimebase, "01:00:00"},
        {360000 * VXTimebase, "100:00:00"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(VXAudioGain::formatDuration(c.ticks), QString::fromLatin1(c.text)) << c.ticks;
}

TEST_F(ItemTest, CreationProbesTheFile)
{
    ASSERT_FALSE(s_wav.isEmpty());
    VXError error;
    auto item = VXAudioGain::initWithFile(s_wav, QString(), &error);
    ASSERT_TRUE(item);
    EXPECT_EQ(item->inputFile(), s_wav);
    EXPECT_EQ(item->inputFileName(), QStringLiteral("tone.wav"));
    EXPECT_EQ(item->outFileName(), QStringLiteral("tone.wav"));
    EXPECT_TRUE(item->outFolder().isNull());
    EXPECT_TRUE(item->outPathFile().isNull());
    EXPECT_EQ(item->state(), 0);
    EXPECT_EQ(item->retCode(), 0);
    EXPECT_FALSE(item->replaceOriginalFile());
    EXPECT_EQ(item->targetLoudness(), 70.77f);
    EXPECT_EQ(item->formatTargetLoudness(), QStringLiteral("70.8"));
    EXPECT_TRUE(item->allowedTargetLoudnessEdit());
    EXPECT_TRUE(item->stateImage().isNull());
    EXPECT_NEAR(double(item->duration()) / VXTimebase, 1.0, 0.05);
    EXPECT_EQ(item->formatDuration(), QStringLiteral("00:01"));
    EXPECT_EQ(item->inputFileSize(), quint64(QFileInfo(s_wav).size()));
    // No cover art: the default artwork, square.
    EXPECT_FALSE(item->face().isNull());
    EXPECT_EQ(item->face(), VXAudioGain::defaultArtwork());
    EXPECT_EQ(item->face().width(), item->face().height());
}

TEST_F(ItemTest, CoverArtBecomesTheFace)
{
    const QString mp3 = fixtures::makeFormat(s_dir->path(), QStringLiteral("mp3"), 0.5);
    ASSERT_FALSE(mp3.isEmpty());
    auto item = make(mp3);
    ASSERT_TRUE(item);
    EXPECT_EQ(item->face().size(), QSize(64, 48));
}

TEST_F(ItemTest, UnreadableFileYieldsNoItemAndTheCodecError)
{
    const QString bogus = QDir(s_dir->path()).filePath(QStringLiteral("text.mp3"));
    QFile file(bogus);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("this is not audio at all\n");
    file.close();
    for (const QString &path : {bogus, QDir(s_dir->path()).filePath(QStringLiteral("missing.wav"))}) {
        VXError error;
        EXPECT_FALSE(VXAudioGain::initWithFile(path, QString(), &error)) << qPrintable(path);
        EXPECT_FALSE(error.description.isEmpty()) << qPrintable(path);
    }
}

TEST_F(ItemTest, SizeFollowsTheFileOnDisk)
{
    const QString copy = QDir(s_dir->path()).filePath(QStringLiteral("copy.wav"));
    ASSERT_TRUE(QFile::copy(s_wav, copy));
    auto item = make(copy);
    ASSERT_TRUE(item);
    ASSERT_GT(item->inputFileSize(), 0u);
    QFile::remove(copy);
    EXPECT_EQ(item->inputFileSize(), 0u);
    EXPECT_EQ(item->formatInputFileSize(), QStringLiteral("0B"));
}

TEST_F(ItemTest, TargetLoudnessGuards)
{
    auto item = make(s_wav);
    ASSERT_TRUE(item);
    for (float v : {100.01f, -0.01f, std::nanf(""), std::numeric_limits<float>::infinity()}) {
        item->setTargetLoudness(v);
        EXPECT_EQ(item->targetLoudness(), 70.77f) << v;
    }
    item->setTargetLoudness(100.0f);
    EXPECT_EQ(item->targetLoudness(), 100.0f);
    item->setTargetLoudness(0.0f);
    EXPECT_EQ(item->targetLoudness(), 0.0f);

    // Frozen while running.
    for (qint32 running : {1, 2}) {
        item->setState(running);
        item->setTargetLoudness(42.0f);
        EXPECT_EQ(item->targetLoudness(), 0.0f);
        EXPECT_EQ(item->state(), running);
        EXPECT_FALSE(item->allowedTargetLoudnessEdit());
    }

    // A finished item goes back to idle and keeps its result, also when the
    // value does not change.
    item->setState(3);
    item->setRetCode(-1);
    EXPECT_TRUE(item->allowedTargetLoudnessEdit());
    item->setTargetLoudness(0.0f);
    EXPECT_EQ(item->state(), 0);
    EXPECT_EQ(item->retCode(), -1);
}

TEST_F(ItemTest, LoudnormValueMapsPositionLinearly)
{
    auto item = make(s_wav);
    ASSERT_TRUE(item);
    EXPECT_FLOAT_EQ(item->loudnormValue(), -23.9995f);
    const struct {
        float position, lufs;
    } cases[] = {{0.0f, -70.0f}, {50.0f, -37.5f}, {100.0f, -5.0f}};
    for (const auto &c : cases) {
        item->setTargetLoudness(c.position);
        EXPECT_EQ(item->loudnormValue(), c.lufs) << c.position;
    }
}

TEST_F(ItemTest, OutputNameKeepsTheInputExtension)
{
    ASSERT_FALSE(s_mp3.isEmpty());
    auto item = make(s_mp3);
    ASSERT_TRUE(item);
    ASSERT_EQ(item->outFileName(), QStringLiteral("Track.MP3"));
    const struct {
        const char *given, *stored;
    } cases[] = {
        {"abc", "Track.MP3"},  // too short: ignored
        {"song", "song.MP3"},
        {"Song.mp3", "Song.mp3"},
        {"song.wav", "song.wav.MP3"},
    };
    for (const auto &c : cases) {
        item->setOutFileName(QString::fromLatin1(c.given));
        EXPECT_EQ(item->outFileName(), QString::fromLatin1(c.stored)) << c.given;
    }

    item->setOutPathFile(QStringLiteral("/out/dir/song.mp3"));
    EXPECT_EQ(item->outFolder(), QStringLiteral("/out/dir"));
    EXPECT_EQ(item->outFileName(), QStringLiteral("song.mp3"));
    EXPECT_EQ(item->outPathFile(), QStringLiteral("/out/dir/song.mp3"));
    item->setOutPathFile(QStringLiteral("/x.flac"));
    EXPECT_EQ(item->outPathFile(), QStringLiteral("/x.flac.MP3"));
}

TEST_F(ItemTest, DerivedPropertiesFollowTheirInputs)
{
    auto item = make(s_wav);
    ASSERT_TRUE(item);
    QSignalSpy loudnorm(item.get(), &VXAudioGain::loudnormValueChanged);
    QSignalSpy targetText(item.get(), &VXAudioGain::formatTargetLoudnessChanged);
    QSignalSpy image(item.get(), &VXAudioGain::stateImageChanged);
    QSignalSpy editable(item.get(), &VXAudioGain::allowedTargetLoudnessEditChanged);
    QSignalSpy outPath(item.get(), &VXAudioGain::outPathFileChanged);

    item->setTargetLoudness(50.0f);
    EXPECT_EQ(loudnorm.count(), 1);
    EXPECT_EQ(targetText.count(), 1);
    item->setTargetLoudness(50.0f);  // same value: nothing derived changes
    EXPECT_EQ(loudnorm.count(), 1);

    item->setState(1);  // 0 -> 1: image and editability change
    EXPECT_EQ(image.count(), 1);
    EXPECT_EQ(editable.count(), 1);
    item->setState(2);  // still not editable
    EXPECT_EQ(image.count(), 2);
    EXPECT_EQ(editable.count(), 1);
    item->setRetCode(30);
    EXPECT_EQ(image.count(), 3);
    item->setState(3);
    EXPECT_EQ(editable.count(), 2);

    item->setOutFolder(QStringLiteral("/a"));
    item->setOutFileName(QStringLiteral("other.wav"));
    item->setOutFolder(QStringLiteral("/a"));  // unchanged
    EXPECT_EQ(outPath.count(), 2);
}

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

// Items of real files, generated once: a wav, and an mp3 whose extension is
// upper case (the naming rules are about that case).
VXAudioGainPtr item(const QString &name)
{
    static QTemporaryDir dir;
    const QString path = QDir(dir.path()).filePath(name);
    if (!QFile::exists(path))
        fixtures::makeAudio(dir.path(), name, 0.5, {QStringLiteral("-c:a"), name.endsWith(QLatin1String(".MP3")) ? QStringLiteral("libmp3lame") : QStringLiteral("pcm_s16le")});
    VXError error;
    return VXAudioGain::initWithFile(path, QStringLiteral("/out"), &error);
}

} // namespace

TEST(Item, DisplayTexts)
{
    const std::pair<quint64, const char *> sizes[] = {
        {0, "0B"}, {1023, "1023B"}, {1024, "1.00KB"}, {1048575, "1024.00KB"}, {1048576, "1.00MB"},
        {1610612736, "1536.00MB"},
        // Converted as unsigned: the top bit must not make it negative.
        {std::numeric_limits<quint64>::max(), "17592186044416.00MB"},
    };
    for (const auto &[bytes, text] : sizes)
        EXPECT_EQ(VXAudioGain::formatSize(bytes), QString::fromLatin1(text)) << bytes;

    const std::pair<quint64, const char *> durations[] = {
        {0, "00:00"}, {61 * VXTimebase, "01:01"}, {3599 * VXTimebase, "59:59"},
        {3599 * VXTimebase + VXTimebase * 9 / 10, "59:59"}, {3600 * VXTimebase, "01:00:00"},
        {360000 * VXTimebase, "100:00:00"},
    };
    for (const auto &[ticks, text] : durations)
        EXPECT_EQ(VXAudioGain::formatDuration(ticks), QString::fromLatin1(text)) << ticks;
}

TEST(Item, CreationProbesTheFile)
{
    auto plain = item(QStringLiteral("tone.wav"));
    ASSERT_TRUE(plain);
    EXPECT_EQ(plain->formatTargetLoudness(), QStringLiteral("70.8"));
    EXPECT_NEAR(double(plain->duration()) / VXTimebase, 0.5, 0.05);
    EXPECT_EQ(plain->face(), VXAudioGain::defaultArtwork());  // no cover art
    EXPECT_EQ(plain->face().width(), plain->face().height());

    QTemporaryDir dir;
    const QString mp3 = fixtures::makeFormat(dir.path(), QStringLiteral("mp3"), 0.5);
    VXError error;
    auto covered = VXAudioGain::initWithFile(mp3, QString(), &error);
    ASSERT_TRUE(covered);
    EXPECT_EQ(covered->face().size(), QSize(64, 48));
    EXPECT_TRUE(covered->outPathFile().isNull());  // no folder yet
    // The size follows the file on disk.
    ASSERT_EQ(covered->inputFileSize(), quint64(QFileInfo(mp3).size()));
    QFile::remove(mp3);
    EXPECT_EQ(covered->formatInputFileSize(), QStringLiteral("0B"));

    // What the codec cannot open yields no item, and the codec's error.
    const QString text = QDir(dir.path()).filePath(QStringLiteral("text.mp3"));
    ASSERT_TRUE(fixtures::writeFile(text, "this is not audio at all\n"));
    for (const QString &path : {text, mp3}) {
        VXError failure;
        EXPECT_FALSE(VXAudioGain::initWithFile(path, QString(), &failure)) << qPrintable(path);
        EXPECT_FALSE(failure.description.isEmpty()) << qPrintable(path);
    }
}

// A large cover is kept at the row's size, its shape unchanged, and files
// carrying the same picture (an album's tracks) share one image.
TEST(Item, CoverArtIsKeptAtTheRowsSizeAndShared)
{
    QTemporaryDir dir;
    const QString wav = makeWav(dir.path(), QStringLiteral("tone.wav"), 0.5);
    const QString cover = QDir(dir.path()).filePath(QStringLiteral("wide.jpg"));
    ASSERT_TRUE(fixtures::run(QStringLiteral("ffmpeg"), {"-v", "error", "-f", "lavfi", "-i",
                                                         "testsrc=size=800x400:rate=1", "-frames:v", "1", cover}));
    QStringList tracks;
    for (const char *name : {"a.mp3", "b.mp3"}) {
        tracks << QDir(dir.path()).filePath(name);
        ASSERT_TRUE(fixtures::run(QStringLiteral("ffmpeg"),
                                  {"-v", "error", "-i", wav, "-i", cover, "-map", "0:a", "-map", "1:v", "-c:a",
                                   "libmp3lame", "-c:v", "copy", "-disposition:v", "attached_pic", tracks.last()}));
    }
    VXError error;
    const auto first = VXAudioGain::initWithFile(tracks[0], QString(), &error);
    const auto second = VXAudioGain::initWithFile(tracks[1], QString(), &error);
    ASSERT_TRUE(first && second);
    EXPECT_EQ(first->face().size(), QSize(VXAudioGain::kFacePixels, VXAudioGain::kFacePixels / 2));
    EXPECT_EQ(first->face().cacheKey(), second->face().cacheKey());
}

// Probing runs in the worker: a file that crashes the demuxer is refused
// with a reason while the files beside it import, and what a refusal
// carries (the DRM flag) comes across from there.
TEST(Item, CrashInTheDemuxerRefusesThatFileAlone)
{
    QTemporaryDir dir;
    const QString good = makeWav(dir.path(), QStringLiteral("good.wav"), 0.5);
    const QString bad = makeWav(dir.path(), QStringLiteral("crasher.wav"), 0.5);
    const QString m4a = fixtures::makeFormat(dir.path(), QStringLiteral("m4a-aac"), 0.5);
    QByteArray bytes = fixtures::readFile(m4a);
    ASSERT_GT(bytes.indexOf("mp4a"), 0);
    ASSERT_TRUE(fixtures::writeFile(m4a, bytes.replace(bytes.indexOf("mp4a"), 4, "drms")));  // a FairPlay sample entry

    qputenv("EVENLOUD_WORKER_ABORT_ON", "probe:crasher.wav");
    VXError goodError, badError, drmError;
    const auto imported = VXAudioGain::initWithFile(good, QString(), &goodError);
    const auto refused = VXAudioGain::initWithFile(bad, QString(), &badError);
    const auto drm = VXAudioGain::initWithFile(m4a, QString(), &drmError);
    qunsetenv("EVENLOUD_WORKER_ABORT_ON");
    ASSERT_TRUE(imported) << goodError.description.toStdString();
    EXPECT_NEAR(double(imported->duration()) / VXTimebase, 0.5, 0.05);
    EXPECT_FALSE(refused);
    EXPECT_EQ(badError.description, QStringLiteral("Cannot open %1: the demuxer crashed on this file (Aborted)").arg(bad));
    EXPECT_FALSE(drm);
    EXPECT_TRUE(drmError.userInfo.contains(QLatin1String(VXTranscodingDRMProtected)));
}

TEST(Item, TargetLoudnessGuardsAndMapping)
{
    auto it = item(QStringLiteral("tone.wav"));
    ASSERT_TRUE(it);
    EXPECT_FLOAT_EQ(it->loudnormValue(), -23.9995f);
    for (float v : {100.01f, -0.01f, std::nanf(""), std::numeric_limits<float>::infinity()}) {
        it->setTargetLoudness(v);
        EXPECT_EQ(it->targetLoudness(), 70.77f) << v;
    }
    const std::pair<float, float> lufs[] = {{50.0f, -37.5f}, {100.0f, -5.0f}, {0.0f, -70.0f}};
    for (const auto &[position, value] : lufs) {
        it->setTargetLoudness(position);
        EXPECT_EQ(it->loudnormValue(), value) << position;
    }

    // Frozen while running.
    for (qint32 running : {1, 2}) {
        it->setState(running);
        it->setTargetLoudness(42.0f);
        EXPECT_EQ(it->targetLoudness(), 0.0f);
        EXPECT_EQ(it->state(), running);
    }
    // A finished item goes back to idle and keeps its result, also when the
    // value does not change.
    it->setState(3);
    it->setRetCode(-1);
    it->setTargetLoudness(0.0f);
    EXPECT_EQ(it->state(), 0);
    EXPECT_EQ(it->retCode(), -1);
}

TEST(Item, OutputNameKeepsTheInputExtension)
{
    auto it = item(QStringLiteral("Track.MP3"));
    ASSERT_TRUE(it);
    const std::pair<const char *, const char *> names[] = {
        {"abc", "Track.MP3"},  // too short: ignored
        {"song", "song.MP3"},
        {"Song.mp3", "Song.mp3"},
        {"song.wav", "song.wav.MP3"},
    };
    for (const auto &[given, stored] : names) {
        it->setOutFileName(QString::fromLatin1(given));
        EXPECT_EQ(it->outFileName(), QString::fromLatin1(stored)) << given;
    }
    it->setOutPathFile(QStringLiteral("/out/dir/song.mp3"));
    EXPECT_EQ(it->outFolder(), QStringLiteral("/out/dir"));
    EXPECT_EQ(it->outFileName(), QStringLiteral("song.mp3"));
    it->setOutPathFile(QStringLiteral("/x.flac"));
    EXPECT_EQ(it->outPathFile(), QStringLiteral("/x.flac.MP3"));
}

TEST(Item, DerivedPropertiesFollowTheirInputs)
{
    auto it = item(QStringLiteral("tone.wav"));
    ASSERT_TRUE(it);
    QSignalSpy loudnorm(it.get(), &VXAudioGain::loudnormValueChanged);
    QSignalSpy targetText(it.get(), &VXAudioGain::formatTargetLoudnessChanged);
    QSignalSpy image(it.get(), &VXAudioGain::stateImageChanged);
    QSignalSpy editable(it.get(), &VXAudioGain::allowedTargetLoudnessEditChanged);
    QSignalSpy outPath(it.get(), &VXAudioGain::outPathFileChanged);

    it->setTargetLoudness(50.0f);
    it->setTargetLoudness(50.0f);  // same value: nothing derived changes
    EXPECT_EQ(loudnorm.count(), 1);
    EXPECT_EQ(targetText.count(), 1);

    it->setState(1);    // image and editability change
    it->setState(2);    // image only
    it->setRetCode(30); // image only
    it->setState(3);    // both
    EXPECT_EQ(image.count(), 4);
    EXPECT_EQ(editable.count(), 2);

    it->setOutFolder(QStringLiteral("/a"));
    it->setOutFileName(QStringLiteral("other.wav"));
    it->setOutFolder(QStringLiteral("/a"));  // unchanged
    EXPECT_EQ(outPath.count(), 2);
}

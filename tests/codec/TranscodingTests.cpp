#include "engine/codec/VXCodecConstants.h"
#include "engine/codec/VXLoudnessMeter.h"
#include "tests/codec/CodecTestUtil.h"

#include <QDir>
#include <QFile>
#include <atomic>
#include <gtest/gtest.h>
#include <thread>

using namespace codectest;

namespace {

QString outPath(const QString &name)
{
    QDir(scratchDir()).mkpath("transcoding");
    return QDir(scratchDir()).filePath("transcoding/" + name);
}

// The order every receiver relies on: progress rising within 0..100, about
// one per percent at most, then exactly one end report and nothing more.
void expectWellFormed(const std::vector<std::pair<int32_t, int64_t>> &events)
{
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(events.back().first, VXTranscodingStateEnd);
    int64_t last = -1;
    int progress = 0;
    for (size_t i = 0; i + 1 < events.size(); ++i) {
        EXPECT_EQ(events[i].first, VXTranscodingStateProgress) << "report " << i;
        EXPECT_GT(events[i].second, last);
        EXPECT_LE(events[i].second, 100);
        last = events[i].second;
        ++progress;
    }
    EXPECT_LE(progress, 101);
}

TEST(Transcoding, ReportsProgressThenOneEnd)
{
    const QString in = fixtures::makeAudio(scratchDir(), "eight.flac", 8, {"-c:a", "flac"});
    ASSERT_FALSE(in.isEmpty());
    Reports reports;
    auto t = VXTranscoding::initWithInput(in, outPath("eight.flac"));
    ASSERT_TRUE(t);
    EXPECT_EQ(runToEnd(*t, &reports), VXTranscodingCompleted);
    t.reset(); // joins: anything late would show up now
    const auto events = reports.events();
    expectWellFormed(events);
    ASSERT_GE(events.size(), 11u) << "an 8 s file should report its way up";
    EXPECT_EQ(events[events.size() - 2].second, 100);
}

// Cancel arrives from another thread while the worker sits inside a
// progress report, as it does when the GUI thread is slow to apply it.
TEST(Transcoding, CancelWhileReportIsBlocked)
{
    const QString in = fixtures::makeAudio(scratchDir(), "long.wav", 30, {"-c:a", "pcm_s16le"});
    ASSERT_FALSE(in.isEmpty());
    auto t = VXTranscoding::initWithInput(in, outPath("long.wav"));
    ASSERT_TRUE(t);
    Reports reports;
    auto record = reports.block();
    std::atomic<bool> cancelled{false};
    t->transcodingWithBlock([&, raw = t.get()](int32_t state, int64_t value) {
        record(state, value);
        if (state == VXTranscodingStateProgress && !cancelled.exchange(true)) {
            // Must return although this thread is not free to stop yet.
            std::thread([raw] { raw->cancelTranscoding(); }).join();
        }
    });
    ASSERT_TRUE(reports.waitForEnd());
    t.reset();
    const auto events = reports.events();
    expectWellFormed(events);
    EXPECT_EQ(events.back().second, VXTranscodingCancelled);
    EXPECT_LT(events.size(), 5u) << "the work should stop within a few frames";
}

TEST(Transcoding, CancelBeforeStartAndSecondStart)
{
    auto t = VXTranscoding::initWithInput(corpusFile("mp3"), outPath("early.mp3"));
    ASSERT_TRUE(t);
    t->cancelTranscoding();
    Reports first, second;
    EXPECT_EQ(t->transcodingHere(first.block()), VXTranscodingCancelled);
    // One run per object, whichever way it is started; a second start still
    // gets its one end report.
    EXPECT_EQ(runToEnd(*t, &second), VXTranscodingFailed);
    t.reset();
    EXPECT_EQ(first.events().size(), 1u);
    EXPECT_EQ(second.events().size(), 1u);
}

TEST(Transcoding, EmptyAudioStreamStillEnds)
{
    const QString in = QDir(scratchDir()).filePath("empty-stream.wav");
    ASSERT_TRUE(fixtures::run("ffmpeg", {"-v", "error", "-y", "-f", "lavfi", "-i", "anullsrc", "-t", "0", in}));
    auto t = VXTranscoding::initWithInput(in, outPath("empty-stream.wav"));
    if (!t)
        GTEST_SKIP() << "this FFmpeg refuses the empty file at open";
    Reports reports;
    EXPECT_EQ(runToEnd(*t, &reports), VXTranscodingCompleted);
    t.reset();
    EXPECT_EQ(reports.events().back().first, VXTranscodingStateEnd);
}

// The receiver may drop the last reference from inside the end report; the
// worker must neither join itself nor touch the freed object afterwards.
TEST(Transcoding, ReleasedFromItsOwnEndReport)
{
    auto holder = VXTranscoding::initWithInput(corpusFile("wav16"), outPath("self.wav"));
    ASSERT_TRUE(holder);
    Reports reports;
    VXTranscoding *raw = holder.get();
    auto keep = std::make_shared<std::shared_ptr<VXTranscoding>>(std::move(holder));
    raw->transcodingWithBlock([keep, record = reports.block()](int32_t state, int64_t value) {
        if (state != VXTranscodingStateEnd)
            return;
        keep->reset();
        record(state, value);
    });
    keep.reset();
    ASSERT_TRUE(reports.waitForEnd());
    EXPECT_EQ(reports.endValue(), VXTranscodingCompleted);
}

TEST(Transcoding, SetUpFailuresAreValues)
{
    const QString in = corpusFile("flac16");
    EXPECT_FALSE(VXTranscoding::initWithInput(in, outPath("unknown.xyz")));
    EXPECT_FALSE(VXTranscoding::initWithInput(in, outPath("no/such/folder/x.flac")));
    // The iPod flavour of MP4 takes no plain PCM.
    EXPECT_FALSE(VXTranscoding::initWithInput(corpusFile("wav16"), outPath("mismatch.m4a")));
}

} // namespace

namespace {

// Sets the global gain of every frame's first granule to its maximum, the
// way some corrupt MP3s decode: to around +60 dBFS.
QByteArray overdriven(QByteArray mp3)
{
    static const int kbps[] = {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320};
    static const int rates[] = {44100, 48000, 32000};
    qsizetype i = 0;
    while (i + 8 < mp3.size()) {
        const auto byte = [&](qsizetype at) { return quint8(mp3[at]); };
        const int rateIndex = (byte(i + 2) >> 2) & 3;
        if (byte(i) != 0xFF || (byte(i + 1) & 0xFE) != 0xFA || (byte(i + 2) >> 4) == 0 || (byte(i + 2) >> 4) == 15
            || rateIndex == 3) {
            ++i;
            continue;
        }
        const qsizetype length = 144 * kbps[byte(i + 2) >> 4] * 1000 / rates[rateIndex] + ((byte(i + 2) >> 1) & 1);
        const qsizetype side = i + 4 + ((byte(i + 1) & 1) ? 0 : 2);
        for (int bit = 41; bit < 49; ++bit)  // stereo: gr0 ch0 global_gain
            mp3[side + bit / 8] = char(byte(side + bit / 8) | (0x80 >> (bit % 8)));
        i += length;
    }
    return mp3;
}

} // namespace

// Input that real collections hold and that must neither fail a job nor
// take the process down: loudness tags of the old level, an MP3 whose rate
// changes halfway (two files joined), samples far beyond full scale.
TEST(Transcoding, OddInputKeepsTheSignalPathWhole)
{
    const QString dir = scratchDir();
    const QString tagged = fixtures::makeAudio(dir, "tagged.flac", 3,
                                               {"-c:a", "flac", "-metadata", "title=Kept", "-metadata",
                                                "REPLAYGAIN_TRACK_GAIN=-6.5 dB", "-metadata", "R128_TRACK_GAIN=-1664",
                                                "-metadata", "iTunNORM= 0000031F 0000031F"});
    const QString a = fixtures::makeAudio(dir, "a44.mp3", 3, {"-c:a", "libmp3lame", "-ar", "44100", "-write_xing", "0"});
    const QString b = fixtures::makeAudio(dir, "b48.mp3", 3,
                                          {"-c:a", "libmp3lame", "-ar", "48000", "-write_xing", "0", "-id3v2_version", "0"});
    ASSERT_FALSE(tagged.isEmpty() || a.isEmpty() || b.isEmpty());
    QFile fa(a), fb(b), joined(QDir(dir).filePath("joined.mp3")), hot(QDir(dir).filePath("hot.mp3"));
    ASSERT_TRUE(fa.open(QIODevice::ReadOnly) && fb.open(QIODevice::ReadOnly));
    const QByteArray first = fa.readAll();
    ASSERT_TRUE(joined.open(QIODevice::WriteOnly) && hot.open(QIODevice::WriteOnly));
    joined.write(first + fb.readAll());
    hot.write(overdriven(first));
    joined.close();
    hot.close();

    auto t = VXTranscoding::initWithInput(tagged, outPath("tagged.flac"));
    ASSERT_TRUE(t);
    ASSERT_EQ(runToEnd(*t), VXTranscodingCompleted);
    const QVariantMap tags = allTags(ffprobe(outPath("tagged.flac")));
    EXPECT_EQ(tags.value("title").toString(), "Kept");
    for (const char *stale : {"replaygain_track_gain", "r128_track_gain", "itunnorm"})
        EXPECT_FALSE(tags.contains(QLatin1String(stale))) << stale;

    t = VXTranscoding::initWithInput(joined.fileName(), outPath("joined.mp3"));
    ASSERT_TRUE(t);
    ASSERT_EQ(runToEnd(*t), VXTranscodingCompleted) << t->failureReason().toStdString();
    const QJsonObject probe = ffprobe(outPath("joined.mp3"));
    EXPECT_NEAR(probe["format"].toObject()["duration"].toString().toDouble(), 6.0, 0.2);

    t = VXTranscoding::initWithInput(hot.fileName(), outPath("hot.mp3"));
    ASSERT_TRUE(t);
    EXPECT_EQ(runToEnd(*t), VXTranscodingCompleted);
    const VXResult<VXLoudness> loudness = VXMeasureFile(outPath("hot.mp3"), VXMeasureTruePeak);
    ASSERT_TRUE(loudness) << loudness.reason().toStdString();
    // Clipped at full scale before the encoder (a lossy codec's overshoot
    // on clipped material aside), no longer some 60 dB beyond it.
    EXPECT_LT(loudness->truePeak, 20.0);
}

// Audition: the sound the worker streams for listening, checked on its
// samples and with the meter that checks every job.

#include "EngineTestUtil.h"

#include "engine/VXAudioGain.h"
#include "engine/VXAudition.h"
#include "engine/VXAuditionMix.h"
#include "engine/VXAuditionStream.h"
#include "engine/VXGainState.h"
#include "engine/codec/VXCodecBackend.h"
#include "engine/codec/VXFilter.h"

#include <QDataStream>
#include <QFile>
#include <QThreadPool>
#include <gtest/gtest.h>

using namespace enginetest;

namespace {

constexpr int kRate = 44100;  // the fixtures'

struct Pcm {
    vx::PcmFormat format;
    std::vector<float> samples;
    qsizetype frames() const { return format.channels ? qsizetype(samples.size()) / format.channels : 0; }
};

vx::PlayRequest request(const QString &path, qint64 fromUs = 0, std::vector<std::shared_ptr<VXFilter>> filters = {})
{
    vx::PlayRequest r;
    r.input = path;
    r.fromUs = fromUs;
    r.filters = std::move(filters);
    r.channels = 2;
    return r;
}

std::shared_ptr<VXFilter> gain(double linear)
{
    auto volume = VXFilter::filterWithName(QStringLiteral("volume"));
    volume->setValue(QString::number(linear, 'g', 17), QStringLiteral("volume"));
    return volume;
}

// The whole stream, as the program's backend (the worker) sends it.
Pcm collect(const vx::PlayRequest &r)
{
    Pcm pcm;
    const VXCancel never;
    const VXResult<> played = vx::codecBackend().play(r, never, [&](const vx::PcmFormat &f, const float *s, qsizetype n) {
        pcm.format = f;
        pcm.samples.insert(pcm.samples.end(), s, s + n * f.channels);
        return true;
    });
    EXPECT_TRUE(played.ok()) << qPrintable(played.reason());
    return pcm;
}

// Integrated loudness of samples, by way of a 32-bit float WAV measured as
// any file is.
double loudness(const Pcm &pcm, const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return NAN;
    QDataStream out(&file);
    out.setByteOrder(QDataStream::LittleEndian);
    const quint32 bytes = quint32(pcm.samples.size() * sizeof(float));
    const quint16 channels = quint16(pcm.format.channels);
    const quint32 rate = quint32(pcm.format.sampleRate);
    out.writeRawData("RIFF", 4);
    out << quint32(36 + bytes);
    out.writeRawData("WAVEfmt ", 8);
    out << quint32(16) << quint16(3) << channels << rate << quint32(rate * channels * 4) << quint16(channels * 4)
        << quint16(32);
    out.writeRawData("data", 4);
    out << bytes;
    out.writeRawData(reinterpret_cast<const char *>(pcm.samples.data()), int(bytes));
    file.close();
    const VXResult<VXLoudness> measured = VXMeasureFile(path, VXMeasureTruePeak);
    return measured ? measured->integrated : NAN;
}

// n frames of the mix, waiting for the streams as a sound card would.
std::vector<float> mixFrames(VXAuditionMix &mix, qsizetype n)
{
    std::vector<float> out(size_t(n) * 2);
    qsizetype got = 0;
    waitFor([&] {
        got += mix.mix(out.data() + got * 2, n - got);
        return got == n || mix.atEnd();
    });
    EXPECT_EQ(got, n);
    return out;
}

// Mixes on until a new pair is heard alone; the frames that took.
qsizetype mixUntilSettled(VXAuditionMix &mix)
{
    qsizetype frames = 0;
    std::vector<float> chunk(200);
    waitFor([&] {
        frames += mix.mix(chunk.data(), 100);
        return !mix.switching();
    });
    return frames;
}

// The last frames of out are the file's frames before `position`, times g.
void expectEndsAt(const std::vector<float> &out, const Pcm &full, qint64 position, float g)
{
    constexpr qsizetype kChecked = 1000;
    double worst = 0;
    for (qsizetype i = 0; i < kChecked * 2; ++i) {
        const float want = g * full.samples[size_t((position - kChecked) * 2 + i)];
        worst = std::max(worst, double(std::fabs(out[out.size() - kChecked * 2 + size_t(i)] - want)));
    }
    EXPECT_LT(worst, 1e-5) << "at frame " << position << ", gain " << g;
}

class AuditionTest : public ::testing::Test {
protected:
    QTemporaryDir m_dir;
};

} // namespace

// The stream carries its filters' gain on every sample, and a stream asked
// to start at a time starts on that very sample (the seek lands before it,
// the decoder's frames are cut), through the worker's pipe.
TEST_F(AuditionTest, StreamCarriesItsGainAndStartsOnTheAskedSample)
{
    const QString flac = fixtures::makeAudio(m_dir.path(), QStringLiteral("music.flac"), 6.0,
                                             {QStringLiteral("-c:a"), QStringLiteral("flac")});
    ASSERT_FALSE(flac.isEmpty());
    const Pcm full = collect(request(flac));
    ASSERT_EQ(full.format, (vx::PcmFormat{kRate, 2}));
    EXPECT_NEAR(double(full.frames()), 6.0 * kRate, 1.0);

    const Pcm halved = collect(request(flac, 0, {gain(0.5)}));
    ASSERT_EQ(halved.samples.size(), full.samples.size());
    double worst = 0;
    for (size_t i = 0; i < full.samples.size(); ++i)
        worst = std::max(worst, double(std::fabs(halved.samples[i] - 0.5f * full.samples[i])));
    EXPECT_LT(worst, 1e-6);

    for (const qint64 fromUs : {qint64(2500000), qint64(1234567), qint64(5990000)}) {
        const qint64 first = (fromUs * kRate + 500000) / 1000000;
        const Pcm seeked = collect(request(flac, fromUs));
        ASSERT_EQ(seeked.frames(), full.frames() - first) << "from " << fromUs << " us";
        EXPECT_TRUE(std::equal(seeked.samples.begin(), seeked.samples.end(), full.samples.begin() + first * 2))
            << "from " << fromUs << " us";
    }
    // Past the end: no sound, and no failure.
    EXPECT_EQ(collect(request(flac, 7000000)).frames(), 0);

    // Another rate: the same length of time.
    vx::PlayRequest at48 = request(flac, 1000000);
    at48.sampleRate = 48000;
    const Pcm resampled = collect(at48);
    EXPECT_EQ(resampled.format, (vx::PcmFormat{48000, 2}));
    EXPECT_NEAR(double(resampled.frames()), 5.0 * 48000, 2.0);
}

// A and B read in step: a switch lands on the next sample of the same
// position, a pair started again to follow (a new gain) carries on where
// the heard one has got to, and a jump is heard from its target; each after
// a short cross-fade.
TEST_F(AuditionTest, SwitchesLandOnTheSamePosition)
{
    const QString flac = fixtures::makeAudio(m_dir.path(), QStringLiteral("music.flac"), 6.0,
                                             {QStringLiteral("-c:a"), QStringLiteral("flac")});
    ASSERT_FALSE(flac.isEmpty());
    const Pcm full = collect(request(flac));
    QThreadPool pool;
    auto stream = [&](qint64 frame, double g) {
        return std::make_unique<VXAuditionStream>(request(flac, frame * 1000000 / kRate, {gain(g)}), pool, 2.0);
    };
    constexpr int kFade = 64;
    constexpr qint64 kStart = kRate;
    VXAuditionMix mix(2, kFade);
    mix.replace(stream(kStart, 1.0), stream(kStart, 0.25), kStart);
    EXPECT_EQ(mix.position(), kStart);
    std::vector<float> out = mixFrames(mix, 2000);
    expectEndsAt(out, full, kStart + 2000, 1.0f);

    mix.setSide(VXAuditionMix::B);
    out = mixFrames(mix, 2000);
    EXPECT_EQ(mix.position(), kStart + 4000);
    expectEndsAt(out, full, kStart + 4000, 0.25f);
    // Inside the fade, every sample lies between the two sides' of the same position.
    for (qsizetype i = 0; i < kFade * 2; ++i) {
        const float a = full.samples[size_t((kStart + 2000) * 2 + i)];
        EXPECT_GE(std::fabs(out[size_t(i)]) + 1e-6f, 0.25f * std::fabs(a));
        EXPECT_LE(std::fabs(out[size_t(i)]), std::fabs(a) + 1e-6f);
    }

    mix.replace(stream(mix.position(), 1.0), stream(mix.position(), 0.5), mix.position(), VXAuditionMix::Follow);
    const qsizetype settling = mixUntilSettled(mix);
    out = mixFrames(mix, 2000);
    EXPECT_EQ(mix.position(), kStart + 6000 + settling) << "a following pair neither skips nor repeats";
    expectEndsAt(out, full, mix.position(), 0.5f);

    const qint64 target = 3 * kRate;
    mix.replace(stream(target, 1.0), stream(target, 0.5), target);
    EXPECT_EQ(mix.position(), target) << "the playhead goes to a jump's target at once";
    mixUntilSettled(mix);
    out = mixFrames(mix, 2000);
    EXPECT_GE(mix.position(), target + 2000);
    expectEndsAt(out, full, mix.position(), 0.5f);

    mix.setSide(VXAuditionMix::A);
    out = mixFrames(mix, 2000);
    expectEndsAt(out, full, mix.position(), 1.0f);
    std::vector<float> rest(2000);
    waitFor([&] {
        while (mix.mix(rest.data(), 1000) > 0) {
        }
        return mix.atEnd();
    });
    EXPECT_EQ(mix.position(), full.frames());
}

// With Match loudness A and B are equally loud; without it they differ by
// the planned gain. Measured on the worker's samples by the job's meter.
TEST_F(AuditionTest, MatchedSidesAreEquallyLoud)
{
    const QString wav = fixtures::makeWav(m_dir.path(), QStringLiteral("music.wav"), 8.0);
    ASSERT_FALSE(wav.isEmpty());
    VXAuditionFacts facts;
    facts.input = wav;
    facts.measured = VXMeasureFile(wav, VXMeasureTruePeak).valueOr({});
    ASSERT_TRUE(facts.measured.measured());
    facts.settings.targetLoudness = *VXLoudnessScale::positionForLufs(-23.0);
    facts.settings.truePeakCeiling = -1.0f;
    const VXAudition audition = VXPlanAudition(facts);
    ASSERT_EQ(audition.result, wav);
    ASSERT_EQ(audition.resultFilters.size(), 1u);
    ASSERT_NEAR(audition.plainGainDb, -23.0 - facts.measured.integrated, 0.02);

    const double a = loudness(collect(request(wav, 0, audition.originalFilters(true))), m_dir.filePath("a.wav"));
    const double b = loudness(collect(request(wav, 0, audition.resultFilters)), m_dir.filePath("b.wav"));
    const double own = loudness(collect(request(wav, 0, audition.originalFilters(false))), m_dir.filePath("own.wav"));
    EXPECT_NEAR(b, -23.0, 0.1);
    EXPECT_NEAR(a, b, 0.1);
    EXPECT_NEAR(b - own, audition.plainGainDb, 0.1);
    EXPECT_EQ(audition.level(true), 1.0f) << "lowered only where A would peak over -1 dBTP";
}

// A limited plan: B before the Gain sounds as loud as the file the job then
// writes, corrections and all; after it, B is that file, and A with Match
// loudness is raised by the gain the job applied, held under full scale.
TEST_F(AuditionTest, LimitedBIsWhatTheJobWrites)
{
    QTemporaryDir out;
    const QString wav = fixtures::makeWav(m_dir.path(), QStringLiteral("music.wav"), 8.0);
    ASSERT_FALSE(wav.isEmpty());
    VXJobSettings settings;
    settings.targetLoudness = *VXLoudnessScale::positionForLufs(-9.0);
    settings.truePeakCeiling = -1.0f;
    settings.limitPeaks = true;

    VXAuditionFacts facts;
    facts.input = wav;
    facts.measured = VXMeasureFile(wav, VXMeasureTruePeak).valueOr({});
    facts.settings = settings;
    const VXAudition before = VXPlanAudition(facts);
    ASSERT_EQ(before.resultFilters.size(), 1u);
    ASSERT_EQ(before.resultFilters[0]->linearPlan().value_or(VXGainPlan{}).kind, VXNormalization::Limited);
    const double live = loudness(collect(request(wav, 0, before.resultFilters)), m_dir.filePath("live.wav"));

    VXError error;
    const VXAudioGainPtr item = VXAudioGain::initWithFile(wav, out.path(), &error);
    ASSERT_TRUE(item) << qPrintable(error.description);
    item->setJobSettings(settings);
    item->setTargetLoudness(settings.targetLoudness);
    item->gainWithBlock({});
    ASSERT_TRUE(waitFor([&] { return item->state() == VXGainFinished; }));
    ASSERT_EQ(item->retCode(), VXGainSucceeded) << qPrintable(item->gainResult().reason);
    const VXResult<VXLoudness> written = VXMeasureFile(item->outPathFile(), VXMeasureTruePeak);
    ASSERT_TRUE(written.ok());
    EXPECT_NEAR(live, written->integrated, 0.2);

    facts.result = item->gainResult();
    facts.output = item->outPathFile();
    const VXAudition after = VXPlanAudition(facts);
    EXPECT_EQ(after.result, item->outPathFile());
    EXPECT_TRUE(after.resultFilters.empty());
    EXPECT_DOUBLE_EQ(after.plainGainDb, item->gainResult().gainDb);
    EXPECT_LT(after.level(true), 1.0f);
    EXPECT_NEAR(20.0 * std::log10(after.level(true)), -1.0 - (facts.measured.truePeak + after.plainGainDb), 1e-4);
}

// What each side plays, by what is known of the row: a table over the
// cases a user meets (position 80 is -18 LUFS, the ceiling -1 dBTP).
TEST(AuditionPlan, EachSideByWhatIsKnown)
{
    VXLoudness measured;
    measured.integrated = -23.0;
    measured.truePeak = -10.0;
    measured.range = 6.0;
    measured.threshold = -33.0;
    VXLoudness silent = measured;
    silent.integrated = silent.truePeak = -INFINITY;
    VXGainResult written;
    written.gainDb = 4.5;
    VXGainResult skipped;
    skipped.skipped = true;
    const struct Case {
        const char *name;
        VXLoudness measured;
        double skipWithin;
        std::optional<VXGainResult> result;
        bool replaced;
        QString original, result_;  // the files of A and B
        size_t resultFilters;
        double plainGainDb;  // NaN: nothing to match A with
    } cases[] = {
        {"not measured", VXLoudness(), NAN, {}, false, "in.wav", "", 0, NAN},
        {"planned", measured, NAN, {}, false, "in.wav", "in.wav", 1, 5.0},
        {"within the skip window", measured, 6.0, {}, false, "in.wav", "in.wav", 0, 0.0},
        {"silent", silent, NAN, {}, false, "in.wav", "in.wav", 0, 0.0},
        {"written", measured, NAN, written, false, "in.wav", "out.wav", 0, 4.5},
        // Only the result is left to hear.
        {"replaced", measured, NAN, written, true, "", "in.wav", 0, 4.5},
        {"skipped by the job", measured, NAN, skipped, true, "in.wav", "in.wav", 0, 0.0},
    };
    for (const Case &c : cases) {
        VXAuditionFacts facts;
        facts.input = QStringLiteral("in.wav");
        facts.measured = c.measured;
        facts.settings.targetLoudness = 80.0f;
        facts.settings.truePeakCeiling = -1.0f;
        facts.settings.skipWithin = c.skipWithin;
        facts.result = c.result;
        facts.output = QStringLiteral("out.wav");
        facts.replaced = c.replaced;
        const VXAudition audition = VXPlanAudition(facts);
        EXPECT_EQ(audition.original, c.original) << c.name;
        EXPECT_EQ(audition.result, c.result_) << c.name;
        EXPECT_EQ(audition.resultFilters.size(), c.resultFilters) << c.name;
        EXPECT_TRUE(std::isnan(c.plainGainDb) ? std::isnan(audition.plainGainDb)
                                              : std::fabs(audition.plainGainDb - c.plainGainDb) < 0.02)
            << c.name << ": " << audition.plainGainDb;
        // A is matched only by a gain there is.
        EXPECT_EQ(audition.originalFilters(true).size(), std::isfinite(c.plainGainDb) && c.plainGainDb != 0.0 ? 1u : 0u)
            << c.name;
        EXPECT_TRUE(audition.originalFilters(false).empty()) << c.name;
        EXPECT_EQ(audition.why.isEmpty(), !c.original.isEmpty() && !c.result_.isEmpty()) << c.name;
    }
}

// A paused stream holds what it was allowed ahead and no more (a long file
// never piles up in memory), and a side that cannot be played ends with its
// reason while the other plays on, in step, as silence beside it.
TEST_F(AuditionTest, StreamsHoldTheirShareAndFailAlone)
{
    const QString flac = fixtures::makeAudio(m_dir.path(), QStringLiteral("music.flac"), 6.0,
                                             {QStringLiteral("-c:a"), QStringLiteral("flac")});
    ASSERT_FALSE(flac.isEmpty());
    QThreadPool pool;
    {
        VXAuditionStream held(request(flac), pool, 0.5);
        ASSERT_TRUE(waitFor([&] { return held.available() >= kRate / 2; }));
        QTest::qWait(300);  // time enough to run away, were it not held
        EXPECT_LT(held.available(), kRate / 2 + 16384);
        EXPECT_FALSE(held.finished());
    }
    VXAuditionMix mix(2, 64);
    mix.replace(std::make_unique<VXAuditionStream>(request(flac), pool, 2.0),
                std::make_unique<VXAuditionStream>(request(m_dir.filePath("gone.flac")), pool, 2.0), 0);
    mix.setSide(VXAuditionMix::B);
    mixFrames(mix, 4000);
    EXPECT_EQ(mix.position(), 4000);
    EXPECT_FALSE(mix.failure(VXAuditionMix::B).isEmpty());
    EXPECT_TRUE(mix.failure(VXAuditionMix::A).isEmpty());
    EXPECT_FALSE(mix.atEnd());
}

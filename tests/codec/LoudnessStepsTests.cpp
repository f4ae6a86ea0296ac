// An album's figures come from its tracks' 100 ms steps alone (that is what
// a cache keeps): they must be libebur128's own, from the meters' states,
// to within the steps' rounding.

#include "CodecTestUtil.h"

#include "engine/codec/VXLoudnessMeter.h"
#include "engine/codec/VXMeasurePrivate.h"

#include <gtest/gtest.h>

using namespace codectest;

TEST(LoudnessSteps, GateAndRangeAreLibebur128s)
{
    // Rates whose 100 ms is a whole number of samples or not, lengths that
    // end mid-step, levels that straddle the gates, a pause of silence.
    const struct {
        const char *name;
        double seconds;
        double gainDb;
        QStringList encode;
    } tracks[] = {
        {"loud.wav", 7.03, 0.0, {"-c:a", "pcm_s16le"}},
        {"mono.wav", 3.3, -20.0, {"-c:a", "pcm_f32le", "-ar", "48000", "-ac", "1"}},
        {"odd-rate.wav", 12.0, -8.0, {"-c:a", "pcm_s16le", "-ar", "11025"}},
        {"faint.wav", 5.0, -52.0, {"-c:a", "pcm_s24le"}},
        // Its own filter replaces the fixture's gain: the last -af counts.
        {"pause.flac", 9.0, 0.0, {"-af", "volume=-3dB,volume=enable='between(t,2,6)':volume=0", "-c:a", "flac"}},
    };
    std::vector<std::unique_ptr<VXFrameMeter>> meters;
    std::vector<VXLoudness> measured;
    for (const auto &t : tracks) {
        const QString path = fixtures::makeAudio(scratchDir(), QString::fromLatin1(t.name), t.seconds, t.encode, t.gainDb);
        ASSERT_FALSE(path.isEmpty()) << t.name;
        std::unique_ptr<VXFrameMeter> meter;
        const VXResult<vx::Measurement> m = vx::measureHere(path, VXMeasureTruePeak | VXMeasureCurve, nullptr, {}, &meter);
        ASSERT_TRUE(m.ok()) << t.name << ": " << m.reason().toStdString();
        const VXLoudness &l = m->loudness;
        const VXGatedLoudness own = VXGateSteps({&l.steps});
        EXPECT_NEAR(own.integrated, l.integrated, 0.01) << t.name;
        EXPECT_NEAR(own.threshold, l.threshold, 0.01) << t.name;
        EXPECT_NEAR(own.range, l.range, 0.01) << t.name;
        meters.push_back(std::move(meter));
        measured.push_back(l);
    }
    std::vector<const VXFrameMeter *> all;
    for (const auto &m : meters)
        all.push_back(m.get());
    double range = NAN;
    const double integrated = VXFrameMeter::combinedLoudness(all, &range);
    const VXLoudness album = VXAlbumOf(measured);
    EXPECT_NEAR(album.integrated, integrated, 0.01);
    EXPECT_NEAR(album.range, range, 0.01);
    double peak = -HUGE_VAL;
    for (const VXLoudness &l : measured)
        peak = std::max(peak, l.truePeak);
    EXPECT_EQ(album.truePeak, peak);
}

TEST(LoudnessSteps, TheCurveFollowsFromTheSteps)
{
    // One step at -20 LUFS after silence: its momentary window holds it a
    // quarter of the time, its short-term window a thirtieth.
    VXLoudness l;
    l.steps.assign(5, kVXSilentStep);
    l.steps.push_back(VXStepOf(-20.0));
    VXCurveFromSteps(l);
    ASSERT_EQ(l.shortTerm.size(), 6u);
    EXPECT_EQ(l.shortTerm[0], -INFINITY);
    EXPECT_NEAR(l.shortTerm[5], -20.0 - 10 * std::log10(30.0), 1e-4);
    EXPECT_NEAR(l.maxMomentary, -20.0 - 10 * std::log10(4.0), 1e-9);
    EXPECT_EQ(VXStepOf(-HUGE_VAL), kVXSilentStep);
    EXPECT_EQ(VXStepOf(-23.456), -2346);
    EXPECT_EQ(VXStepOf(-900.0), -32700);
}

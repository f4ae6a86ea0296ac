#include "engine/VXJobPlan.h"

#include <QJsonDocument>
#include <cmath>
#include <gtest/gtest.h>

namespace {

VXLoudness figures(double integrated, double truePeak, double range = 6.0, double threshold = -40.0)
{
    VXLoudness l;
    l.integrated = integrated;
    l.truePeak = truePeak;
    l.range = range;
    l.threshold = threshold;
    return l;
}

// NaN stands for "no such figure"; both NaN counts as equal.
bool same(double a, double b) { return (std::isnan(a) && std::isnan(b)) || a == b || std::fabs(a - b) < 1e-6; }

} // namespace

// Position 80 is -18 LUFS; the ceiling is -1 dBTP.
TEST(JobPlan, OnePlanPerCaseFromTheFiguresAndTheSettings)
{
    const struct Case {
        const char *name;
        VXLoudness input;
        std::optional<VXLoudness> album;  // with the input as the track's figures
        bool limitPeaks;
        double skipWithin;
        bool skipped;
        std::optional<VXNormalization> kind;  // nullopt: left as it is
        double gainDb;
        double expected;  // NaN: the result is held to no level
        int corrections;
    } cases[] = {
        {"linear", figures(-23, -10), {}, false, NAN, false, VXNormalization::Linear, 5, -18, 3},
        {"peak-capped", figures(-30, -3), {}, false, NAN, false, VXNormalization::PeakCapped, 2, -28, 3},
        {"limited", figures(-30, -3), {}, true, NAN, false, VXNormalization::Limited, 12, -18, 3},
        // The album's figures decide the gain; the track must move by it.
        {"album", figures(-20, -5), figures(-22, -8), false, NAN, false, VXNormalization::Linear, 4, -16, 0},
        {"album capped", figures(-20, -5), figures(-22, -2), false, NAN, false, VXNormalization::PeakCapped, 1, -19, 0},
        {"album limited", figures(-20, -5), figures(-22, -2), true, NAN, false, VXNormalization::Limited, 4, NAN, 0},
        {"silent", figures(-INFINITY, -INFINITY), {}, false, 1.0, false, std::nullopt, 0, NAN, 0},
        {"unreadable", figures(NAN, NAN), {}, false, 1.0, false, std::nullopt, 0, NAN, 0},
        {"skipped", figures(-18.3, -4), {}, false, 0.5, true, std::nullopt, 0, NAN, 0},
        {"just outside", figures(-18.6, -4), {}, false, 0.5, false, VXNormalization::Linear, 0.6, -18, 3},
        // The album's level is what is close, not the track's.
        {"album skipped", figures(-25, -5), figures(-18.2, -3), false, 0.5, true, std::nullopt, 0, NAN, 0},
    };
    for (const Case &c : cases) {
        VXJobSettings settings;
        settings.targetLoudness = 80.0f;
        settings.truePeakCeiling = -1.0f;
        settings.limitPeaks = c.limitPeaks;
        settings.skipWithin = c.skipWithin;
        VXJobLoudness loudness;
        loudness.input = c.input;
        if (c.album)
            loudness.album = VXAlbumMember{QStringLiteral("LP"), c.input, *c.album};
        const VXJobPlan plan = VXPlanJob(loudness, settings);
        EXPECT_FLOAT_EQ(plan.targetLufs, -18.0f) << c.name;
        EXPECT_EQ(plan.skipped, c.skipped) << c.name;
        EXPECT_EQ(plan.album, c.album ? QStringLiteral("LP") : QString()) << c.name;
        EXPECT_TRUE(same(plan.inputTruePeak, c.input.truePeak)) << c.name;
        if (c.skipped) {
            EXPECT_TRUE(same(plan.measuredI, c.album ? c.album->integrated : c.input.integrated)) << c.name;
        }
        ASSERT_EQ(plan.gain.has_value(), c.kind.has_value()) << c.name;
        if (c.kind) {
            EXPECT_EQ(plan.gain->kind, *c.kind) << c.name;
            EXPECT_NEAR(plan.gain->gainDb, c.gainDb, 1e-6) << c.name;
        }
        EXPECT_TRUE(same(plan.expectedLoudness, c.expected)) << c.name << " " << plan.expectedLoudness;
        EXPECT_EQ(plan.maxCorrections, c.corrections) << c.name;
    }
}

TEST(JobPlan, FurtherStreamsGetTheirOwnGainAndSilentOnesNone)
{
    VXJobSettings settings;
    settings.targetLoudness = 80.0f;
    settings.truePeakCeiling = -1.0f;
    VXJobLoudness loudness;
    loudness.input = figures(-23, -10);
    loudness.otherStreams = {{2, figures(-30, -3)}, {3, figures(-INFINITY, -INFINITY)}, {4, figures(-20, -12)}};
    const VXJobPlan plan = VXPlanJob(loudness, settings);
    ASSERT_EQ(plan.otherStreams.size(), 2);
    EXPECT_EQ(plan.otherStreams[0].index, 2);
    EXPECT_EQ(plan.otherStreams[0].gain.kind, VXNormalization::PeakCapped);
    EXPECT_NEAR(plan.otherStreams[0].gain.gainDb, 2.0, 1e-6);
    EXPECT_EQ(plan.otherStreams[1].index, 4);
    EXPECT_NEAR(plan.otherStreams[1].gain.gainDb, 2.0, 1e-6);
    // A skipped file writes nothing, its further streams included.
    settings.skipWithin = 10.0;
    EXPECT_TRUE(VXPlanJob(loudness, settings).otherStreams.isEmpty());
}

// The record as loudnorm prints it: numbers in strings, "-inf" for silence.
TEST(JobPlan, RecordIsReadOnceIntoNumbers)
{
    const QJsonObject record = QJsonDocument::fromJson(
        R"({"input_i": "-23.45", "input_tp": "-inf", "input_lra": 7.5, "input_thresh": "x", "target_offset": "0.10"})")
                                   .object();
    double offset = 0;
    const VXLoudness l = VXLoudnessFromRecord(record, &offset);
    EXPECT_DOUBLE_EQ(l.integrated, -23.45);
    EXPECT_TRUE(std::isinf(l.truePeak) && l.truePeak < 0);
    EXPECT_DOUBLE_EQ(l.range, 7.5);
    EXPECT_TRUE(std::isnan(l.threshold));
    EXPECT_DOUBLE_EQ(offset, 0.1);
    EXPECT_TRUE(std::isnan(VXLoudnessFromRecord(QJsonObject()).integrated));
}

// A lossless plan: Opus takes the gain as planned, MP3 and AAC the nearest
// whole 1.505 dB steps, one fewer where rounding up would cross the ceiling.
// A limiter cannot work without re-encoding, so the gain is peak-capped.
TEST(JobPlan, LosslessStepsNearestUnderTheCeiling)
{
    const struct Case {
        const char *name;
        VXLoudness input;
        bool limitPeaks;
        double gainDb;  // the exact gain
        int steps;
    } cases[] = {
        {"down", figures(-12.0, -1.5), false, -6.0, -4},        // -6.02 is nearest
        {"up a little", figures(-19.0, -10), false, 1.0, 1},     // 1.505, 0.505 over
        {"half a step rounds up", figures(-18.76, -10), false, 0.76, 1},
        {"under half rounds down", figures(-18.74, -10), false, 0.74, 0},
        {"ceiling takes a step back", figures(-25.0, -3.5), false, 2.5, 1},  // 2 steps would peak at -0.49
        {"capped, not limited", figures(-30.0, -3.0), true, 2.0, 1},
        {"far down", figures(-3.0, 0.5), false, -15.0, -10},
    };
    for (const Case &c : cases) {
        VXJobSettings settings;
        settings.targetLoudness = 80.0f;  // -18 LUFS
        settings.truePeakCeiling = -1.0f;
        settings.limitPeaks = c.limitPeaks;
        settings.lossless = true;
        VXJobLoudness loudness;
        loudness.input = c.input;
        const VXJobPlan plan = VXPlanJob(loudness, settings);
        ASSERT_TRUE(plan.lossless) << c.name;
        EXPECT_NEAR(plan.lossless->gainDb, c.gainDb, 1e-6) << c.name;
        EXPECT_EQ(plan.lossless->steps, c.steps) << c.name;
        EXPECT_NEAR(plan.lossless->stepGainDb, c.steps * 1.50515, 1e-4) << c.name;
        EXPECT_LE(c.input.truePeak + plan.lossless->stepGainDb, -1.0 + 1e-9) << c.name;
        EXPECT_DOUBLE_EQ(plan.lossless->baseLoudness, c.input.integrated) << c.name;
    }
    // An album's track is judged from its own level; silence takes no step.
    VXJobSettings settings;
    settings.targetLoudness = 80.0f;
    settings.lossless = true;
    VXJobLoudness album;
    album.input = figures(-20, -5);
    album.album = VXAlbumMember{QStringLiteral("LP"), figures(-20, -5), figures(-24, -10)};
    const VXJobPlan albumPlan = VXPlanJob(album, settings);
    ASSERT_TRUE(albumPlan.lossless);
    EXPECT_EQ(albumPlan.lossless->steps, 4);  // +6 dB for the album: 6.02
    EXPECT_DOUBLE_EQ(albumPlan.lossless->baseLoudness, -20.0);
    VXJobLoudness silent;
    silent.input = figures(-INFINITY, -INFINITY);
    const VXJobPlan silentPlan = VXPlanJob(silent, settings);
    ASSERT_TRUE(silentPlan.lossless);
    EXPECT_EQ(silentPlan.lossless->steps, 0);
    EXPECT_TRUE(std::isnan(silentPlan.lossless->baseLoudness));
    settings.lossless = false;
    EXPECT_FALSE(VXPlanJob(album, settings).lossless);
}

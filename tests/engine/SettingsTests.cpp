// The job settings value: one check of every range, and a round trip
// through QSettings under the keys older versions wrote.
#include "engine/VXJobSettings.h"

#include <QSettings>
#include <QTemporaryDir>
#include <gtest/gtest.h>

namespace {

QSettings fileSettings(const QTemporaryDir &dir)
{
    return QSettings(dir.filePath(QStringLiteral("s.ini")), QSettings::IniFormat);
}

} // namespace

TEST(JobSettings, RangesAreCheckedInOnePlaceAndNaNNeverPasses)
{
    EXPECT_TRUE(VXJobSettings::isValidTarget(0.0));
    EXPECT_TRUE(VXJobSettings::isValidTarget(100.0));
    EXPECT_FALSE(VXJobSettings::isValidTarget(100.01));
    EXPECT_FALSE(VXJobSettings::isValidTarget(NAN));
    EXPECT_TRUE(VXJobSettings::isValidCeiling(-9.0));
    EXPECT_FALSE(VXJobSettings::isValidCeiling(0.5));
    EXPECT_FALSE(VXJobSettings::isValidCeiling(NAN));
    EXPECT_TRUE(VXJobSettings::isValidSkipWithin(NAN));  // skip nothing
    EXPECT_TRUE(VXJobSettings::isValidSkipWithin(20.0));
    EXPECT_FALSE(VXJobSettings::isValidSkipWithin(-0.1));

    VXJobSettings wild;
    wild.targetLoudness = 140.0f;
    wild.truePeakCeiling = 3.0f;
    wild.skipWithin = -1.0;
    wild.limitPeaks = true;
    EXPECT_FALSE(wild.isValid());
    const VXJobSettings fixed = wild.sanitized();
    EXPECT_TRUE(fixed.isValid());
    EXPECT_EQ(fixed.targetLoudness, VXJobSettings().targetLoudness);
    EXPECT_EQ(fixed.truePeakCeiling, -2.0f);
    EXPECT_TRUE(std::isnan(fixed.skipWithin));
    EXPECT_TRUE(fixed.limitPeaks) << "fields in range are kept";
}

TEST(JobSettings, SavedAndLoadedAsAUnitUnderTheOldKeys)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    {
        QSettings empty = fileSettings(dir);
        EXPECT_EQ(VXJobSettings::load(empty), VXJobSettings()) << "nothing stored: the defaults";
    }
    VXJobSettings s;
    s.targetLoudness = 80.5f;
    s.truePeakCeiling = -1.0f;
    s.limitPeaks = true;
    s.skipWithin = 0.5;
    s.measureWithLoudnorm = true;
    s.dualMono = true;
    s.treatAsAlbums = true;
    s.tagsOnly = true;
    s.preserveModificationTime = true;
    s.lossless = true;
    {
        QSettings out = fileSettings(dir);
        s.undoLossless = true;  // an action of one command line, never remembered
        s.save(out);
        s.undoLossless = false;
    }
    QSettings in = fileSettings(dir);
    EXPECT_EQ(VXJobSettings::load(in), s);
    // A version before this value read these keys one by one.
    EXPECT_EQ(in.value(QStringLiteral("kRQTruePeakCeiling")).toFloat(), -1.0f);
    EXPECT_TRUE(in.value(QStringLiteral("kRQTagsOnly")).toBool());

    // "Skip nothing" is stored as no entry, since NaN does not survive every format.
    s.skipWithin = NAN;
    s.save(in);
    EXPECT_FALSE(in.contains(QStringLiteral("kRQSkipWithin")));
    // A hand-edited file cannot hand a job a value out of range.
    in.setValue(QStringLiteral("kRQTruePeakCeiling"), 6);
    in.setValue(QStringLiteral("kRQTargetLoudness"), QStringLiteral("loud"));
    const VXJobSettings back = VXJobSettings::load(in);
    EXPECT_EQ(back.truePeakCeiling, -2.0f);
    EXPECT_EQ(back.targetLoudness, VXJobSettings().targetLoudness);
    EXPECT_TRUE(back.dualMono);
}

#include "EngineTestUtil.h"

#include "engine/VXAudioGain.h"

#include <QTemporaryDir>
#include <gtest/gtest.h>

using namespace enginetest;

// The disc fills clockwise from twelve: a quarter on screen changes only
// once the progress has reached it. Sampled in the 64 x 64 (2x) image, well
// inside the ring.
TEST(StateImage, ProgressDiscGrowsClockwiseFromTwelve)
{
    const QPoint quarters[] = {{44, 20}, {44, 44}, {20, 44}, {20, 20}};
    const QImage empty = VXAudioGain::makeImageWithPrg(0).convertToFormat(QImage::Format_ARGB32);
    ASSERT_EQ(empty.size(), QSize(64, 64));
    EXPECT_EQ(empty.deviceIndependentSize(), QSizeF(32, 32));
    for (int filled = 1; filled <= 4; ++filled) {
        const QImage image = VXAudioGain::makeImageWithPrg(25 * filled).convertToFormat(QImage::Format_ARGB32);
        for (int q = 0; q < 4; ++q)
            EXPECT_EQ(image.pixel(quarters[q]) != empty.pixel(quarters[q]), q < filled) << filled << " " << q;
        EXPECT_EQ(qAlpha(image.pixel(0, 0)) + qAlpha(image.pixel(63, 63)), 0) << filled;
    }
}

TEST(StateImage, FollowsStateAndResult)
{
    QTemporaryDir dir;
    VXError error;
    auto item = VXAudioGain::initWithFile(makeWav(dir.path(), QStringLiteral("a.wav"), 0.3), dir.path(), &error);
    ASSERT_TRUE(item);
    EXPECT_TRUE(item->stateImage().isNull());

    item->setState(1);
    item->setRetCode(40);  // started: the empty disc whatever retCode says
    EXPECT_EQ(item->stateImage(), VXAudioGain::makeImageWithPrg(0));
    item->setState(2);
    const QImage first = item->stateImage();
    EXPECT_NE(first.cacheKey(), item->stateImage().cacheKey());  // drawn anew at each read
    EXPECT_EQ(first, VXAudioGain::makeImageWithPrg(40));

    item->setState(3);
    item->setRetCode(0);
    EXPECT_EQ(item->stateImage(), VXAudioGain::successImage());
    item->setRetCode(-1);
    EXPECT_EQ(item->stateImage(), VXAudioGain::failureImage());
    item->setRetCode(-2);
    EXPECT_TRUE(item->stateImage().isNull());
    EXPECT_NE(VXAudioGain::successImage(), VXAudioGain::failureImage());
}

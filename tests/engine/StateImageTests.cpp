#include "EngineTestUtil.h"

#include "engine/VXAudioGain.h"

#include <QTemporaryDir>
#include <gtest/gtest.h>

using namespace enginetest;

TEST(StateImage, ProgressDiscGrowsClockwiseFromTwelve)
{
    // One sample point per quarter as seen on screen, in pixels of the
    // 64 x 64 (2x) image, well inside the ring.
    const QPoint upperRight(44, 20), lowerRight(44, 44), lowerLeft(20, 44), upperLeft(20, 20);
    const struct {
        qint64 progress;
        bool ur, lr, ll, ul;
    } cases[] = {
        {0, false, false, false, false},
        {25, true, false, false, false},
        {50, true, true, false, false},
        {75, true, true, true, false},
        {100, true, true, true, true},
    };
    for (const auto &c : cases) {
        const QImage image = VXAudioGain::makeImageWithPrg(c.progress).convertToFormat(QImage::Format_ARGB32);
        ASSERT_EQ(image.size(), QSize(64, 64));
        EXPECT_EQ(image.deviceIndependentSize(), QSizeF(32, 32));
        EXPECT_EQ(isViolet(image.pixel(upperRight)), c.ur) << c.progress;
        EXPECT_EQ(isViolet(image.pixel(lowerRight)), c.lr) << c.progress;
        EXPECT_EQ(isViolet(image.pixel(lowerLeft)), c.ll) << c.progress;
        EXPECT_EQ(isViolet(image.pixel(upperLeft)), c.ul) << c.progress;
        // The ring lies on top at the border; the corners stay empty.
        EXPECT_TRUE(isRingGrey(image.pixel(32, 1)) && isRingGrey(image.pixel(62, 32))) << c.progress;
        EXPECT_EQ(qAlpha(image.pixel(0, 0)) + qAlpha(image.pixel(63, 63)), 0) << c.progress;
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
    EXPECT_EQ(VXAudioGain::successImage().deviceIndependentSize(), QSizeF(32, 32));
}

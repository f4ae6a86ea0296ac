#include "EngineTestUtil.h"

#include "engine/VXAudioGain.h"

#include <QTemporaryDir>
#include <gtest/gtest.h>

using namespace enginetest;

namespace {

// Sample points, in pixels of the 64 x 64 image (2x), one per quarter of the
// disc as seen on screen, well inside the ring.
const QPoint kUpperRight(44, 20), kLowerRight(44, 44), kLowerLeft(20, 44), kUpperLeft(20, 20);

int violetPixels(const QImage &image)
{
    int n = 0;
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x)
            n += isViolet(image.pixel(x, y));
    return n;
}

} // namespace

TEST(StateImage, ProgressDiscGrowsClockwiseFromTwelve)
{
    const struct {
        qint64 progress;
        bool upperRight, lowerRight, lowerLeft, upperLeft;
    } cases[] = {
        {25, true, false, false, false},
        {50, true, true, false, false},
        {75, true, true, true, false},
        {100, true, true, true, true},
    };
    for (const auto &c : cases) {
        const QImage image = VXAudioGain::makeImageWithPrg(c.progress).convertToFormat(QImage::Format_ARGB32);
        ASSERT_EQ(image.size(), QSize(64, 64));
        EXPECT_EQ(image.deviceIndependentSize(), QSizeF(32, 32));
        EXPECT_EQ(isViolet(image.pixel(kUpperRight)), c.upperRight) << c.progress;
        EXPECT_EQ(isViolet(image.pixel(kLowerRight)), c.lowerRight) << c.progress;
        EXPECT_EQ(isViolet(image.pixel(kLowerLeft)), c.lowerLeft) << c.progress;
        EXPECT_EQ(isViolet(image.pixel(kUpperLeft)), c.upperLeft) << c.progress;
        // The ring lies on top at the border; the corners stay empty.
        EXPECT_TRUE(isRingGrey(image.pixel(32, 1))) << c.progress;
        EXPECT_TRUE(isRingGrey(image.pixel(62, 32))) << c.progress;
        EXPECT_EQ(qAlpha(image.pixel(0, 0)), 0) << c.progress;
        EXPECT_EQ(qAlpha(image.pixel(63, 63)), 0) << c.progress;
    }
}

TEST(StateImage, EmptyDiscIsJustTheRing)
{
    const QImage image = VXAudioGain::makeImageWithPrg(0).convertToFormat(QImage::Format_ARGB32);
    EXPECT_EQ(violetPixels(image), 0);
    EXPECT_TRUE(isRingGrey(image.pixel(32, 62)));
    EXPECT_EQ(qAlpha(image.pixel(32, 32)), 0);

    const QImage lowDpi = VXAudioGain::makeImageWithPrg(100, 1.0);
    EXPECT_EQ(lowDpi.size(), QSize(32, 32));
}

TEST(StateImage, FollowsStateAndResult)
{
    QTemporaryDir dir;
    const QString wav = makeWav(dir.path(), QStringLiteral("a.wav"), 0.3);
    VXError error;
    auto item = VXAudioGain::initWithFile(wav, dir.path(), &error);
    ASSERT_TRUE(item);

    EXPECT_TRUE(item->stateImage().isNull());
    item->setState(1);
    item->setRetCode(40);  // a started item shows the empty disc whatever retCode says
    EXPECT_EQ(violetPixels(item->stateImage().convertToFormat(QImage::Format_ARGB32)), 0);

    item->setState(2);
    const QImage first = item->stateImage();
    const QImage second = item->stateImage();
    EXPECT_NE(first.cacheKey(), second.cacheKey());  // drawn anew at each read
    EXPECT_EQ(first, second);
    EXPECT_EQ(first, VXAudioGain::makeImageWithPrg(40));

    item->setState(3);
    item->setRetCode(0);
    EXPECT_EQ(item->stateImage(), VXAudioGain::successImage());
    item->setRetCode(-1);
    EXPECT_EQ(item->stateImage(), VXAudioGain::failureImage());
    item->setRetCode(-2);
    EXPECT_TRUE(item->stateImage().isNull());
    item->setState(7);
    EXPECT_TRUE(item->stateImage().isNull());

    // The marks are real pictures, distinct and the disc's size.
    EXPECT_FALSE(VXAudioGain::successImage().isNull());
    EXPECT_NE(VXAudioGain::successImage(), VXAudioGain::failureImage());
    EXPECT_EQ(VXAudioGain::successImage().deviceIndependentSize(), QSizeF(32, 32));
}

#include "engine/codec/VXLoudnessMeter.h"
#include "engine/codec/VXWorker.h"
#include "tests/codec/CodecTestUtil.h"
#include "tests/support/Fixtures.h"

#include <QDir>
#include <QJsonArray>
#include <cmath>
#include <vector>
#include <gtest/gtest.h>

using namespace codectest;

namespace {

// A layout as FFmpeg names it (empty: no order stated) and its channel count.
struct Layout {
    QString name;
    int channels;
};

const Layout kLayouts[] = {
    {"mono", 1}, {"stereo", 2}, {"2.1", 3},  {"quad", 4}, {"5.0(side)", 5},
    {"5.1(side)", 6}, {"5.1", 6}, {"6.1", 7}, {"7.1", 8}, {"", 3},
};

QString layoutDir()
{
    QDir(scratchDir()).mkpath("layouts");
    return QDir(scratchDir()).filePath("layouts");
}

// FLAC keeps every named layout; a WAV made through raw samples, none.
QString makeLayout(const Layout &l, const QString &tag = {}, int only = -1)
{
    const QString base = (l.name.isEmpty() ? QStringLiteral("unstated%1").arg(l.channels) : l.name) + tag;
    return l.name.isEmpty()
        ? fixtures::makeChannels(layoutDir(), base + ".wav", {}, l.channels, 3.0, {"-c:a", "pcm_s16le"}, only)
        : fixtures::makeChannels(layoutDir(), base + ".flac", l.name, l.channels, 3.0, {"-c:a", "flac"}, only);
}

QString probedLayout(const QString &path)
{
    return ffprobe(path)["streams"].toArray().first().toObject()["channel_layout"].toString();
}

double integrated(const QString &path, int flags = 0)
{
    const VXResult<VXLoudness> l = VXMeasureFile(path, flags);
    EXPECT_TRUE(l) << path.toStdString() << ": " << l.reason().toStdString();
    return l.valueOr({}).integrated;
}

// 10 log10(1.41): what BS.1770 adds for a surround.
const double kSurroundDb = 10 * std::log10(1.41);

} // namespace

// Each layout reads as FFmpeg's own ebur128 meter reads it (which prints a
// tenth of a LU); a layout other than its count's default used to fail on
// its second frame.
TEST(MeterLayouts, EveryLayoutMeasuresAsFfmpegsMeter)
{
    for (const Layout &l : kLayouts) {
        const QString path = makeLayout(l);
        ASSERT_FALSE(path.isEmpty()) << l.name.toStdString();
        // The fixture is what it claims (ffprobe names no layout for no order).
        EXPECT_EQ(probedLayout(path), l.name);
        const fixtures::Loudness reference = fixtures::measureLoudness(path);
        ASSERT_TRUE(reference.ok) << path.toStdString();
        EXPECT_NEAR(integrated(path), reference.integrated, 0.1) << l.name.toStdString();
    }
}

// The same signal in one channel at a time, against the front left: the
// LFE does not count, the centre counts as a front, every side and rear
// channel as a surround (+1.5 dB), whatever its layout calls it.
TEST(MeterLayouts, EachPositionWeighsAsItsPlace)
{
    const Layout surround{"5.1(side)", 6};
    const double front = integrated(makeLayout(surround, "-only0", 0));
    ASSERT_TRUE(std::isfinite(front));
    const struct {
        Layout layout;
        int channel;
        double offsetDb;
    } cases[] = {
        {surround, 2, 0.0},            // centre
        {surround, 4, kSurroundDb},    // side left
        {{"5.1", 6}, 5, kSurroundDb},  // back right, the 110° pair here
        {{"quad", 4}, 2, kSurroundDb}, // back left
        {{"6.1", 7}, 4, kSurroundDb},  // back centre
        {{"7.1", 8}, 4, kSurroundDb},  // back left, behind the sides
        {{"7.1", 8}, 7, kSurroundDb},  // side right
        {{"7.1", 8}, 1, 0.0},          // front right
    };
    for (const auto &c : cases) {
        const QString path = makeLayout(c.layout, QStringLiteral("-only%1").arg(c.channel), c.channel);
        ASSERT_FALSE(path.isEmpty());
        EXPECT_NEAR(integrated(path) - front, c.offsetDb, 0.02) << c.layout.name.toStdString() << " #" << c.channel;
    }
    // The LFE alone: no block has any loudness.
    EXPECT_EQ(integrated(makeLayout(surround, "-only3", 3)), -HUGE_VAL);
    EXPECT_EQ(integrated(makeLayout({"7.1", 8}, "-only3", 3)), -HUGE_VAL);
}

// A concatenated file whose first part is a layout other than its count's
// default, then stereo at another rate: the later frames are converted to
// the first part's layout and rate, and each part counts for its time.
TEST(MeterLayouts, LaterPartsOfOtherLayoutsAreConverted)
{
    const QString first = fixtures::makeChannels(layoutDir(), "part1.ac3", "5.0(side)", 5, 3.0,
                                                 {"-c:a", "ac3", "-b:a", "448k"});
    const QString second = fixtures::makeAudio(layoutDir(), "part2.ac3", 3.0,
                                               {"-c:a", "ac3", "-b:a", "192k", "-ar", "44100"}, -4);
    ASSERT_FALSE(first.isEmpty() || second.isEmpty());
    const QString joined = QDir(layoutDir()).filePath("joined.ac3");
    ASSERT_TRUE(fixtures::writeFile(joined, fixtures::readFile(first) + fixtures::readFile(second)));
    const fixtures::Loudness a = fixtures::measureLoudness(first), b = fixtures::measureLoudness(second);
    ASSERT_TRUE(a.ok && b.ok);
    // Both parts are well above the relative gate: the figure is their mean
    // energy.
    ASSERT_LT(std::fabs(a.integrated - b.integrated), 8.0);
    const double expected = 10 * std::log10((std::pow(10, a.integrated / 10) + std::pow(10, b.integrated / 10)) / 2);
    EXPECT_NEAR(integrated(joined), expected, 0.2);
}

// Dual mono: a mono file as heard on two speakers reads 3 dB louder, on its
// own and in an album, here and through the worker (which must be told);
// a stereo file reads as it did.
TEST(MeterDualMono, MonoReadsThreeDbLouderAndStereoAsEver)
{
    const QString mono = makeLayout({"mono", 1}), stereo = makeLayout({"stereo", 2});
    ASSERT_FALSE(mono.isEmpty() || stereo.isEmpty());
    enum { Mono, MonoDual, Stereo, StereoDual, AlbumMono, AlbumMonoDual, AlbumStereo, AlbumStereoDual, Album, AlbumDual };
    auto measureAll = [&] {
        const VXResult<VXAlbumLoudness> plainAlbum = VXMeasureAlbum({mono, stereo});
        const VXResult<VXAlbumLoudness> dualAlbum = VXMeasureAlbum({mono, stereo}, VXMeasureDualMono);
        EXPECT_TRUE(plainAlbum && dualAlbum) << plainAlbum.reason().toStdString() << dualAlbum.reason().toStdString();
        const VXAlbumLoudness plain = plainAlbum.valueOr({}), dual = dualAlbum.valueOr({});
        if (plain.tracks.size() != 2 || dual.tracks.size() != 2)
            return std::vector<double>(10, NAN);
        return std::vector<double>{integrated(mono), integrated(mono, VXMeasureDualMono),
                                   integrated(stereo), integrated(stereo, VXMeasureDualMono),
                                   plain.tracks[0].integrated, dual.tracks[0].integrated,
                                   plain.tracks[1].integrated, dual.tracks[1].integrated,
                                   plain.album.integrated, dual.album.integrated};
    };
    const std::vector<double> here = measureAll();
    const double twoSpeakers = 10 * std::log10(2.0);
    EXPECT_NEAR(here[MonoDual] - here[Mono], twoSpeakers, 0.05);
    EXPECT_NEAR(here[AlbumMonoDual] - here[AlbumMono], twoSpeakers, 0.05);
    EXPECT_EQ(here[StereoDual], here[Stereo]);
    EXPECT_EQ(here[AlbumStereoDual], here[AlbumStereo]);
    // Every block of both tracks passes the gates: the album is their mean
    // energy, the louder mono track's included.
    const double mean = 10 * std::log10((std::pow(10, here[AlbumMonoDual] / 10) + std::pow(10, here[Stereo] / 10)) / 2);
    EXPECT_NEAR(here[AlbumDual], mean, 0.1);

    ASSERT_TRUE(vx::useWorkerProcess());
    const std::vector<double> worker = measureAll();
    vx::stopWorkerProcess();
    vx::setWorkerProgram({});
    for (size_t i = 0; i < here.size(); ++i)
        EXPECT_NEAR(worker[i], here[i], 1e-9) << "figure " << i;
}

#include "engine/codec/VXCodecConstants.h"
#include "engine/codec/VXDemuxerContext.h"
#include "tests/codec/CodecTestUtil.h"
#include "tests/support/Fixtures.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QtEndian>
#include <QRandomGenerator>
#include <gtest/gtest.h>
#include <unistd.h>

using namespace codectest;

namespace {

class ProbeCorpus : public ::testing::TestWithParam<fixtures::Format> {};

TEST_P(ProbeCorpus, LengthAndCoverArt)
{
    const fixtures::Format f = GetParam();
    const QString path = corpusFile(f.variant);
    ASSERT_FALSE(path.isEmpty());
    VXError error;
    auto ctx = VXDemuxerContext::initWithFilename(path, &error);
    ASSERT_TRUE(ctx) << error.description.toStdString();
    // 3 s of material; encoders pad by up to a frame or two.
    EXPECT_NEAR(double(ctx->audioStreamLength()) / VXTimebase, 3.0, 0.06);

    auto picture = ctx->attachPicture();
    ASSERT_EQ(bool(picture), f.hasCover);
    if (picture) {
        const QImage image = picture->cgImage();
        EXPECT_EQ(image.size(), QSize(64, 48));
    }
}

INSTANTIATE_TEST_SUITE_P(Formats, ProbeCorpus, ::testing::ValuesIn(fixtures::formats()), variantName);

// A stream written to a pipe has no duration anywhere in its headers.
TEST(Probe, LengthFromPacketsWhenHeadersHaveNone)
{
    const QString path = QDir(scratchDir()).filePath("live.mka");
    QString out;
    ASSERT_TRUE(fixtures::run("sh", {"-c", "ffmpeg -v error -y -f lavfi -i sine=d=2.5 -c:a flac -f matroska pipe:1 > '"
                                               + path + "'"}, &out)) << out.toStdString();
    auto ctx = VXDemuxerContext::initWithFilename(path, nullptr);
    ASSERT_TRUE(ctx);
    EXPECT_NEAR(double(ctx->audioStreamLength()) / VXTimebase, 2.5, 0.1);
}

TEST(Probe, PictureLimits)
{
    EXPECT_TRUE(VXAttachedPicture(QByteArray("not an image")).cgImage().isNull());
    EXPECT_TRUE(VXAttachedPicture(QByteArray(50 * 1024 * 1024 + 1, '\0')).cgImage().isNull());

    // Wider than 16384 px yet tiny on disk.
    const QString wide = QDir(scratchDir()).filePath("wide.png");
    ASSERT_TRUE(fixtures::run("ffmpeg", {"-v", "error", "-y", "-f", "lavfi", "-i", "color=s=16400x4", "-frames:v", "1",
                                         wide}));
    EXPECT_TRUE(VXAttachedPicture(fixtures::readFile(wide)).cgImage().isNull());
}

QString writeFile(const QString &name, const QByteArray &bytes)
{
    const QString path = QDir(scratchDir()).filePath(name);
    return fixtures::writeFile(path, bytes) ? path : QString();
}

QByteArray randomBytes(int size)
{
    QRandomGenerator generator(7);
    QByteArray bytes(size, '\0');
    for (char &c : bytes)
        c = char(generator.bounded(256));
    return bytes;
}

// Inputs that are not audio at all, or cannot be read: an error with a description, no crash.
TEST(Probe, BadInputsFail)
{
    QDir(scratchDir()).mkpath("folder.mp3");
    const QString videoOnly = QDir(scratchDir()).filePath("video-only.mp4");
    ASSERT_TRUE(fixtures::run("ffmpeg", {"-v", "error", "-y", "-f", "lavfi", "-i", "testsrc=size=64x48:duration=1",
                                         "-c:v", "libx264", "-preset", "ultrafast", videoOnly}));
    QStringList bad = {
        writeFile("empty.mp3", {}),
        writeFile("random.mp3", randomBytes(20000)),
        writeFile("text.wav", "RIFF? no, just a note about a song\n"),
        videoOnly,
        QDir(scratchDir()).filePath("folder.mp3"),
        QDir(scratchDir()).filePath("missing.flac"),
    };
    if (geteuid() != 0) {  // permissions do not bind root
        bad << writeFile("locked.flac", fixtures::readFile(corpusFile("flac16")));
        QFile::setPermissions(bad.last(), {});
    }
    for (const QString &path : bad) {
        VXError error;
        EXPECT_FALSE(VXDemuxerContext::initWithFilename(path, &error)) << path.toStdString();
        EXPECT_FALSE(error.description.isEmpty()) << path.toStdString();
        EXPECT_FALSE(error.userInfo.contains(VXTranscodingDRMProtected)) << path.toStdString();
        EXPECT_FALSE(VXTranscoding::initWithInput(path, path + ".out.mp3")) << path.toStdString();
    }
}

// A file cut short still opens or fails cleanly, and transcodes what it has.
TEST(Probe, TruncatedFlac)
{
    const QByteArray whole = fixtures::readFile(corpusFile("flac16"));
    for (const double share : {0.02, 0.5}) {
        const QString path = writeFile(QStringLiteral("cut%1.flac").arg(share), whole.left(qsizetype(whole.size() * share)));
        auto ctx = VXDemuxerContext::initWithFilename(path, nullptr);
        if (!ctx)
            continue;
        EXPECT_GT(ctx->audioStreamLength(), 0u);
        auto t = VXTranscoding::initWithInput(path, path + ".out.flac");
        if (t) {
            const int64_t end = runToEnd(*t);
            EXPECT_TRUE(end == VXTranscodingCompleted || end == VXTranscodingFailed) << end;
        }
    }
}

TEST(Probe, DrmProtectedAudioIsFlagged)
{
    // A FairPlay sample entry: the AAC entry's fourcc patched to "drms".
    QByteArray m4a = fixtures::readFile(corpusFile("m4a-aac"));
    const qsizetype entry = m4a.indexOf("mp4a");
    ASSERT_GT(entry, 0);
    m4a.replace(entry, 4, "drms");

    // An ASF header holding a Content Encryption object, and one holding the
    // extended variant, each inserted right after the header's preamble.
    QByteArray wma = fixtures::readFile(corpusFile("wma"));
    ASSERT_TRUE(wma.startsWith(QByteArray::fromHex("3026b2758e66cf11a6d900aa0062ce6c")));
    const auto withObject = [&](const char *guidHex) {
        QByteArray object = QByteArray::fromHex(guidHex) + QByteArray::fromHex("1800000000000000");
        QByteArray copy = wma;
        copy.insert(30, object);
        quint64 size = qFromLittleEndian<quint64>(copy.constData() + 16) + quint64(object.size());
        qToLittleEndian(size, copy.data() + 16);
        return copy;
    };

    const QStringList files = {
        writeFile("fairplay.m4a", m4a),
        writeFile("encrypted.wma", withObject("fbb3112223bdd211b4b700a0c955fc6e")),
        writeFile("encrypted-ext.wma", withObject("14e68a292226174cb935dae07ee9289c")),
    };
    for (const QString &path : files) {
        VXError error;
        EXPECT_FALSE(VXDemuxerContext::initWithFilename(path, &error)) << path.toStdString();
        EXPECT_TRUE(error.userInfo.contains(VXTranscodingDRMProtected)) << path.toStdString();
        EXPECT_FALSE(VXTranscoding::initWithInput(path, path + ".out." + QFileInfo(path).suffix()));
    }
}

} // namespace

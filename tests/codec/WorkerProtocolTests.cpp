// The frames between the programs and the worker, and the choice of backend.

#include "engine/codec/VXCodecBackend.h"
#include "engine/codec/VXFrame.h"
#include "engine/codec/VXWorker.h"
#include "engine/codec/VXWorkerProtocol.h"

#include <QCborArray>
#include <QtEndian>
#include <cmath>
#include <fcntl.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

QByteArray header(quint32 length)
{
    QByteArray h(vx::kFrameHeaderBytes, '\0');
    qToBigEndian(length, h.data());
    return h;
}

// Bytes written to a pipe by a thread, read back frame by frame.
std::vector<VXResult<QCborMap>> readAll(const QByteArray &bytes)
{
    int fds[2];
    EXPECT_EQ(::pipe2(fds, O_CLOEXEC), 0);
    std::thread writer([&] {
        for (qsizetype done = 0; done < bytes.size();) {
            const ssize_t n = ::write(fds[1], bytes.constData() + done, size_t(bytes.size() - done));
            if (n <= 0)
                break;
            done += n;
        }
        ::close(fds[1]);
    });
    std::vector<VXResult<QCborMap>> frames;
    do
        frames.push_back(vx::readFrame(fds[0]));
    while (frames.back().ok());
    ::close(fds[0]);
    writer.join();
    return frames;
}

} // namespace

TEST(WorkerFrames, RoundTripThroughAPipeAndEndCleanly)
{
    QCborMap value = vx::message("value");
    value.insert(QLatin1String("name"), QLatin1String("picture"));
    value.insert(QLatin1String("bytes"), QByteArray(3 * 1024 * 1024, '\xff'));  // more than a pipe holds
    QCborMap end = vx::message("end");
    end.insert(QLatin1String("result"), 0);

    EXPECT_EQ(*vx::decodeFrame(vx::encodeFrame(value)), value);
    const auto frames = readAll(vx::encodeFrame(value) + vx::encodeFrame(end));
    ASSERT_EQ(frames.size(), 3u);
    EXPECT_EQ(*frames[0], value);
    EXPECT_EQ(*frames[1], end);
    EXPECT_EQ(frames[2].error().code, vx::kFrameEnd);
}

TEST(WorkerFrames, BrokenFramesAreRefusedWithAReason)
{
    const QByteArray frame = vx::encodeFrame(vx::message("progress"));
    const QByteArray notAMap = QCborValue(QCborArray{1, 2}).toCbor();
    const QByteArray junk("\xff\xff\xff\xff\x1c", 5);
    const std::pair<QByteArray, int> cases[] = {
        {frame.chopped(1), vx::kFrameTruncated},
        {frame.left(2), vx::kFrameTruncated},
        {header(quint32(vx::kMaxFrameBytes) + 1), vx::kFrameOversize},
        {header(0xffffffffu) + "abc", vx::kFrameOversize},
        {header(quint32(junk.size())) + junk, vx::kFrameMalformed},
        {header(quint32(notAMap.size())) + notAMap, vx::kFrameMalformed},
        {header(0), vx::kFrameMalformed},
    };
    for (const auto &[bytes, code] : cases) {
        const VXResult<QCborMap> decoded = vx::decodeFrame(bytes);
        ASSERT_FALSE(decoded.ok()) << bytes.toHex().toStdString();
        EXPECT_EQ(decoded.error().code, code) << decoded.reason().toStdString();
        EXPECT_FALSE(decoded.reason().isEmpty());
        // The same from a stream, after a good frame.
        const auto frames = readAll(frame + bytes);
        ASSERT_EQ(frames.size(), 2u);
        EXPECT_EQ(frames[1].error().code, code) << frames[1].reason().toStdString();
    }
    // A whole frame with more after it, in one packet.
    EXPECT_EQ(vx::decodeFrame(frame + frame).error().code, vx::kFrameMalformed);
}

TEST(WorkerFrames, LoudnessCarriesTheFieldsAskedFor)
{
    VXLoudness l;
    l.integrated = -23.456789012345678;
    l.truePeak = -1.25;
    l.range = 7.5;
    l.threshold = -33.4;
    l.maxShortTerm = -20;
    l.maxMomentary = -INFINITY;
    l.shortTerm = {-23.456f, -INFINITY, NAN};

    const VXLoudness figures = vx::loudnessFromCbor(vx::loudnessToCbor(l, vx::kFigures));
    EXPECT_EQ(figures.integrated, l.integrated);
    EXPECT_EQ(figures.truePeak, l.truePeak);
    EXPECT_TRUE(std::isnan(figures.threshold));
    EXPECT_TRUE(figures.shortTerm.empty());

    const VXLoudness input = vx::loudnessFromCbor(vx::loudnessToCbor(l, vx::kInputFigures | vx::kGate));
    EXPECT_TRUE(std::isnan(input.truePeak));
    EXPECT_EQ(input.threshold, l.threshold);

    const VXLoudness all = vx::loudnessFromCbor(vx::loudnessToCbor(l, vx::kFigures | vx::kGate | vx::kMaxima | vx::kCurve));
    EXPECT_EQ(all.maxMomentary, -INFINITY);
    // The curve to 0.01, silence and the undefined as -inf.
    ASSERT_EQ(all.shortTerm.size(), 3u);
    EXPECT_EQ(all.shortTerm[0], -23.46f);
    EXPECT_EQ(all.shortTerm[1], -INFINITY);
    EXPECT_EQ(all.shortTerm[2], -INFINITY);

    // Steps go exactly, and the reader makes the curve from them as the meter does.
    l.steps = {-2345, kVXSilentStep, 32767, -32700, 0, -1};
    const VXLoudness stepped = vx::loudnessFromCbor(vx::loudnessToCbor(l, vx::kFigures | vx::kSteps));
    EXPECT_EQ(stepped.steps, l.steps);
    VXLoudness curve = l;
    VXCurveFromSteps(curve);
    EXPECT_EQ(stepped.shortTerm, curve.shortTerm);
    EXPECT_EQ(stepped.maxMomentary, curve.maxMomentary);
}

TEST(WorkerFrames, AlbumKeepsTracksAndReasons)
{
    VXAlbumLoudness album;
    VXLoudness ok;
    ok.integrated = -20;
    ok.truePeak = -3;
    ok.range = 4;
    ok.threshold = -30;
    album.tracks = {ok, VXLoudness()};
    album.reasons = {QString(), QStringLiteral("no such\nfile")};
    album.album = ok;
    const VXAlbumLoudness back = vx::albumFromCbor(vx::decodeFrame(vx::encodeFrame(vx::albumToCbor(album))).value());
    ASSERT_EQ(back.tracks.size(), 2u);
    EXPECT_EQ(back.tracks[0].threshold, -30);
    EXPECT_FALSE(back.tracks[1].measured());
    EXPECT_EQ(back.reasons, QStringList({QString(), QStringLiteral("no such file")}));
    EXPECT_EQ(back.album.integrated, -20);
    EXPECT_TRUE(std::isnan(back.album.threshold));
}

TEST(CodecBackend, FollowsTheWorkerProgram)
{
    EXPECT_EQ(&vx::codecBackend(), &vx::inProcessBackend());
    vx::setWorkerProgram(QStringLiteral("/nonexistent/evenloud-worker"));
    EXPECT_EQ(&vx::codecBackend(), &vx::workerBackend());
    // A worker that cannot start fails the file with the reason, in words.
    const VXResult<vx::Measurement> measured = vx::codecBackend().measure(QStringLiteral("/dev/null"), 0, nullptr, {});
    EXPECT_FALSE(measured.ok());
    EXPECT_FALSE(measured.reason().isEmpty());
    vx::setWorkerProgram({});
    EXPECT_EQ(&vx::codecBackend(), &vx::inProcessBackend());
}

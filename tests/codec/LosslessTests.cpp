#include "engine/codec/VXBits.h"
#include "engine/codec/VXGainRecord.h"
#include "engine/codec/VXLossless.h"
#include "engine/codec/VXMp3Frame.h"
#include "tests/codec/CodecTestUtil.h"

#include <QDir>
#include <QFile>
#include <cmath>
#include <cstring>
#include <gtest/gtest.h>
#include <ostream>

using namespace codectest;

namespace {

struct Packet {
    int64_t pos = -1;
    QByteArray bytes;
};

// The audio packets where ffprobe finds them, independently of the
// parsing under test.
std::vector<Packet> packets(const QString &path)
{
    std::vector<Packet> out;
    QString csv;
    if (!fixtures::run("ffprobe", {"-v", "error", "-select_streams", "a:0", "-show_entries", "packet=pos,size",
                                   "-of", "csv=p=0", path}, &csv))
        return out;
    const QByteArray bytes = fixtures::readFile(path);
    for (const QString &line : csv.split('\n', Qt::SkipEmptyParts)) {
        const QStringList f = line.trimmed().split(',');
        if (f.size() < 2)
            continue;
        // Either order, as the entries list them: size first.
        const qint64 size = f[0].toLongLong(), pos = f[1].toLongLong();
        out.push_back({pos, bytes.mid(pos, size)});
    }
    return out;
}

// Decoded to 32-bit float, as a player's decoder gives it.
std::vector<float> pcm(const QString &path)
{
    const QString raw = path + ".f32";
    std::vector<float> samples;
    if (!fixtures::run("ffmpeg", {"-nostdin", "-loglevel", "error", "-y", "-i", path, "-f", "f32le", raw}))
        return samples;
    const QByteArray bytes = fixtures::readFile(raw);
    QFile::remove(raw);
    samples.resize(size_t(bytes.size()) / sizeof(float));
    std::memcpy(samples.data(), bytes.constData(), samples.size() * sizeof(float));
    return samples;
}

// The largest difference between b and a x factor, relative to a's peak.
double scaledError(const std::vector<float> &a, const std::vector<float> &b, double factor)
{
    double peak = 0, error = 0;
    for (size_t i = 0; i < a.size() && i < b.size(); ++i) {
        peak = std::max(peak, std::fabs(double(a[i])));
        error = std::max(error, std::fabs(double(b[i]) - double(a[i]) * factor));
    }
    return a.size() == b.size() && peak > 0 ? error / peak : INFINITY;
}

vx::LosslessRequest request(const QString &in, const QString &out, double gainDb, int steps)
{
    fixtures::writeFile(out, {});
    vx::LosslessRequest r;
    r.input = in;
    r.output = out;
    r.gainDb = gainDb;
    r.steps = steps;
    r.measureOutput = 0;
    return r;
}

struct Case {
    const char *name;
    QStringList encode;
    const char *ext;
    bool exact;   // Opus: the header gain; else whole steps
    double gainDb;
    int steps;
};

// Its name alone, so the test's name stays the same from build to build.
void PrintTo(const Case &c, std::ostream *os) { *os << c.name; }

class Lossless : public ::testing::TestWithParam<Case> {};

} // namespace

// The gain reaches the decoded audio as planned, every packet stays as it
// was outside the gain fields, and the undo gives back the input byte for byte.
TEST_P(Lossless, GainsExactlyAndUndoesToTheSameBytes)
{
    const Case c = GetParam();
    const QString in = fixtures::makeAudio(scratchDir(), QStringLiteral("lossless-%1.%2").arg(c.name, c.ext), 6, c.encode);
    ASSERT_FALSE(in.isEmpty());
    const QString out = in + ".out." + c.ext;
    const VXResult<vx::LosslessResult> done = vx::losslessHere(request(in, out, c.gainDb, c.steps), nullptr);
    ASSERT_TRUE(done) << done.reason().toStdString();
    EXPECT_EQ(done->kind, c.exact ? "opus" : "mp3");
    const double applied = c.exact ? std::lround(c.gainDb * 256) / 256.0 : c.steps * vx::kGainStepDb;
    EXPECT_NEAR(done->appliedDb, applied, 1e-9);
    EXPECT_EQ(done->clamped, 0);

    const std::vector<Packet> before = packets(in), after = packets(out);
    ASSERT_EQ(before.size(), after.size());
    ASSERT_GT(before.size(), 100u);
    for (size_t i = 0; i < before.size(); ++i) {
        ASSERT_EQ(before[i].bytes.size(), after[i].bytes.size()) << i;
        // Opus packets are untouched; an MP3 frame differs in its side information at most.
        const qsizetype same = c.exact ? 0 : 4 + 2 + 32;
        EXPECT_EQ(before[i].bytes.mid(same), after[i].bytes.mid(same)) << "packet " << i;
    }
    const double factor = std::pow(10.0, applied / 20.0);
    EXPECT_LT(scaledError(pcm(in), pcm(out), factor), 1e-5);

    // Measured by an independent meter, the level moves by the gain.
    const fixtures::Loudness li = fixtures::measureLoudness(in), lo = fixtures::measureLoudness(out);
    ASSERT_TRUE(li.ok && lo.ok);
    EXPECT_NEAR(lo.integrated - li.integrated, applied, 0.1);
    EXPECT_NEAR(done->output.integrated - li.integrated, applied, 0.1);

    vx::LosslessRequest undo = request(out, out + ".undone", 0, 0);
    undo.previous = done->record;
    undo.undo = true;
    undo.measureOutput = -1;
    const VXResult<vx::LosslessResult> undone = vx::losslessHere(undo, nullptr);
    ASSERT_TRUE(undone) << undone.reason().toStdString();
    EXPECT_EQ(fixtures::readFile(out + ".undone"), fixtures::readFile(in));
}

INSTANTIATE_TEST_SUITE_P(
    Formats, Lossless,
    ::testing::Values(
        Case{"mp3_cbr", {"-c:a", "libmp3lame", "-b:a", "128k"}, "mp3", false, -4.2, -3},
        // VBR leans on the bit reservoir; LSF (22.05 kHz) has one granule a frame.
        Case{"mp3_vbr", {"-c:a", "libmp3lame", "-q:a", "2"}, "mp3", false, 2.9, 2},
        Case{"mp3_lsf_mono", {"-c:a", "libmp3lame", "-b:a", "48k", "-ar", "22050", "-ac", "1"}, "mp3", false, -6, -4},
        Case{"opus", {"-c:a", "libopus", "-b:a", "96k"}, "ogg", true, -3.37, 0}),
    [](const ::testing::TestParamInfo<Case> &info) { return std::string(info.param.name); });

// Granules whose gain is already near the field's floor are held there,
// counted, and put back exactly by the undo.
TEST(LosslessSteps, ClampedGranulesAreCountedAndRestored)
{
    const QString made = fixtures::makeAudio(scratchDir(), "clamp.mp3", 4, {"-c:a", "libmp3lame", "-b:a", "128k"});
    ASSERT_FALSE(made.isEmpty());
    // Every tenth frame's first granule made nearly silent (gain 2).
    QByteArray bytes = fixtures::readFile(made);
    auto *data = reinterpret_cast<uint8_t *>(bytes.data());
    int crafted = 0;
    const std::vector<Packet> frames = packets(made);
    for (size_t i = 0; i < frames.size(); i += 10) {
        uint8_t *frame = data + frames[i].pos;
        const auto header = vx::mp3::parseHeader(frame, size_t(frames[i].bytes.size()));
        ASSERT_TRUE(header);
        vx::mp3::GainField fields[4];
        vx::mp3::gainFields(*header, frame, fields);
        if (fields[0].carriesAudio) {
            vx::writeBits(frame, fields[0].bit, 8, 2);
            ++crafted;
        }
    }
    ASSERT_GT(crafted, 5);
    const QString in = QDir(scratchDir()).filePath("clamp-crafted.mp3");
    ASSERT_TRUE(fixtures::writeFile(in, bytes));

    const QString out = in + ".out.mp3";
    const VXResult<vx::LosslessResult> done = vx::losslessHere(request(in, out, -6, -4), nullptr);
    ASSERT_TRUE(done) << done.reason().toStdString();
    EXPECT_EQ(done->clamped, crafted);
    const std::optional<vx::GainRecord> record = vx::GainRecord::parse(done->record);
    ASSERT_TRUE(record);
    EXPECT_EQ(long(record->clamped.size()), long(crafted));

    vx::LosslessRequest undo = request(out, out + ".undone", 0, 0);
    undo.previous = done->record;
    undo.undo = true;
    ASSERT_TRUE(vx::losslessHere(undo, nullptr));
    EXPECT_EQ(fixtures::readFile(out + ".undone"), bytes);
}

// A second change builds on the first one's record: its undo reaches the
// original, even through a field held at a limit on the way.
TEST(LosslessSteps, RecordsComposeAcrossRuns)
{
    const int fields[] = {100, 3, 250, 0};
    vx::StepEditor first(-4, std::nullopt);
    std::vector<int> now;
    for (int v : fields)
        now.push_back(*first.next(v));
    EXPECT_EQ(now, (std::vector<int>{96, 0, 246, 0}));
    EXPECT_EQ(first.clampedNow(), 2);
    const vx::GainRecord r1 = first.record("mp3");
    const std::optional<vx::GainRecord> parsed = vx::GainRecord::parse(r1.text());
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->clamped, r1.clamped);

    vx::StepEditor second(+9, parsed);
    for (int &v : now)
        v = *second.next(v);
    EXPECT_EQ(now, (std::vector<int>{105, 9, 255, 9}));
    const vx::GainRecord r2 = second.record("mp3");
    EXPECT_EQ(r2.steps, 5);

    vx::StepEditor undo = vx::StepEditor::undo(*vx::GainRecord::parse(r2.text()));
    for (size_t i = 0; i < now.size(); ++i)
        EXPECT_EQ(*undo.next(now[i]), fields[i]) << i;
    EXPECT_TRUE(undo.matches(r2));
    EXPECT_FALSE(vx::GainRecord::parse("v=1;kind=mp3;steps=x"));
    EXPECT_FALSE(vx::GainRecord::parse("kind=mp3;steps=1"));
}

// Formats with no gain field to change are refused with a reason, and
// nothing else is done to them.
TEST(LosslessSteps, OtherFormatsAreRefused)
{
    const QString flac = fixtures::makeAudio(scratchDir(), "refused.flac", 1, {"-c:a", "flac"});
    ASSERT_FALSE(flac.isEmpty());
    const VXResult<vx::LosslessResult> done = vx::losslessHere(request(flac, flac + ".out.flac", -3, -2), nullptr);
    ASSERT_FALSE(done);
    EXPECT_TRUE(done.reason().contains("flac")) << done.reason().toStdString();
}

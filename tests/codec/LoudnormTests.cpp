#include "engine/codec/VXCodecConstants.h"
#include "engine/codec/VXFilter.h"
#include "engine/codec/VXLog.h"
#include "engine/codec/VXLoudnessMeter.h"
#include "engine/codec/VXUtilCodec.h"
#include "tests/codec/CodecTestUtil.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRandomGenerator>
#include <cmath>
#include <gtest/gtest.h>
#include <thread>

using namespace codectest;

namespace {

QString outPath(const QString &name)
{
    QDir(scratchDir()).mkpath("loudnorm");
    return QDir(scratchDir()).filePath("loudnorm/" + name);
}

std::shared_ptr<VXFilter> measuringFilter(float target, const char *meter = VXMeterEbur128)
{
    auto filter = VXFilter::filterWithName(VXALoudnormName);
    filter->setValue(target, kVXAIntegratedLoudnessTarget);
    filter->setValue(VXPrintFormatJSON, kVXPrintFormat);
    filter->setValue(meter, kVXAMeter);
    return filter;
}

// FFmpeg's own loudnorm print-out for the file: what a two-pass script reads.
QJsonObject loudnormPrintOut(const QString &path)
{
    QString out;
    if (!fixtures::run("ffmpeg", {"-hide_banner", "-nostats", "-i", path, "-af",
                                  "loudnorm=I=-16:print_format=json", "-f", "null", "-"},
                       &out))
        return {};
    const qsizetype open = out.lastIndexOf('{'), close = out.lastIndexOf('}');
    return open < 0 || close < open ? QJsonObject()
                                    : QJsonDocument::fromJson(out.mid(open, close - open + 1).toUtf8()).object();
}

// Pass 1 the way the job runs it: wait for the end, then capture the record
// while the transcoding is released. Returns the record, empty on failure;
// input, when given, receives the transcoding's own figures of the input.
QJsonObject measure(const QString &in, const QString &out, const std::shared_ptr<VXFilter> &filter,
                    VXLoudness *input = nullptr)
{
    auto t = VXTranscoding::initWithInput(in, out);
    if (!t)
        return {};
    t->addAudioFilter(filter);
    if (input)
        t->setMeasuresInput();
    if (runToEnd(*t) != VXTranscodingCompleted)
        return {};
    if (input)
        *input = t->inputLoudness();
    filter->redirectStdErrToFile(filter->logFile());
    t.reset();
    filter->cancelRedirectStdErr();
    QFile log(filter->logFile());
    if (!log.open(QIODevice::ReadOnly))
        return {};
    const QByteArray text = log.readAll();
    const VXRange open = rangeOfDataFind(text, "{"), close = rangeOfDataFind(text, "}");
    if (open.location == VXNotFound || close.location == VXNotFound)
        return {};
    return QJsonDocument::fromJson(text.mid(open.location, close.location - open.location + 1)).object();
}

void applyMeasurement(VXFilter &filter, const QJsonObject &record)
{
    filter.setValue(record["input_i"].toString(), kVXAMeasuredIntegratedLoudness);
    filter.setValue(record["input_tp"].toString(), kVXAMeasuredTruePeak);
    filter.setValue(record["input_lra"].toString(), kVXAMeasuredLoudnessRange);
    filter.setValue(record["input_thresh"].toString(), kVXAMeasuredThresh);
    filter.setValue(record["target_offset"].toString(), kVXAGainOffset);
    filter.setValue(true, kVXALinearGain);
    filter.setValue(VXPrintFormatNone, kVXPrintFormat);
}

int64_t runPass(const QString &in, const QString &out, const std::shared_ptr<VXFilter> &filter)
{
    auto t = VXTranscoding::initWithInput(in, out);
    if (!t)
        return -1;
    t->addAudioFilter(filter);
    return runToEnd(*t);
}

// Routing is per filter instance: eight jobs measuring at once, each
// capturing while others print, never see each other's record.
TEST(Loudnorm, EightConcurrentRecordsStayApart)
{
    constexpr int kJobs = 8;
    std::vector<QString> inputs;
    for (int i = 0; i < kJobs; ++i) {
        inputs.push_back(fixtures::makeAudio(scratchDir(), QStringLiteral("level%1.wav").arg(i), 3,
                                             {"-c:a", "pcm_s16le"}, -3.0 * i));
        ASSERT_FALSE(inputs.back().isEmpty());
    }
    std::vector<QJsonObject> records(kJobs);
    std::vector<QString> logs(kJobs);
    std::vector<std::thread> jobs;
    for (int i = 0; i < kJobs; ++i) {
        jobs.emplace_back([&, i] {
            // loudnorm prints through libav's log, where records could mix.
            auto filter = measuringFilter(-23.0f, VXMeterLoudnorm);
            logs[size_t(i)] = filter->logFile();
            records[size_t(i)] = measure(inputs[size_t(i)], outPath(QStringLiteral("level%1.wav").arg(i)), filter);
        });
    }
    for (auto &job : jobs)
        job.join();

    const fixtures::Loudness loudest = fixtures::measureLoudness(inputs[0]);
    ASSERT_TRUE(loudest.ok);
    for (int i = 0; i < kJobs; ++i) {
        const QJsonObject &r = records[size_t(i)];
        ASSERT_FALSE(r.isEmpty()) << "job " << i;
        for (const char *key : {"input_i", "input_tp", "input_lra", "input_thresh", "target_offset"})
            EXPECT_TRUE(r.contains(key)) << "job " << i << " " << key;
        EXPECT_NEAR(r["input_i"].toString().toDouble(), loudest.integrated - 3.0 * i, 0.5) << "job " << i;
        EXPECT_NE(logs[size_t(i)], logs[size_t((i + 1) % kJobs)]);
        EXPECT_FALSE(QFile::exists(logs[size_t(i)])) << "a filter's log goes with it";
    }

    // The logs' folder is this process's own, and a link planted at a log's
    // name is not followed.
    auto filter = measuringFilter(-23.0f);
    const QFileInfo folder(QFileInfo(filter->logFile()).path());
    EXPECT_EQ(folder.permissions() & 0x0077, 0) << folder.filePath().toStdString();
    const QString victim = QDir(scratchDir()).filePath("victim.txt");
    QFile file(victim);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly) && file.write("keep") == 4);
    file.close();
    ASSERT_TRUE(QFile::link(victim, filter->logFile()));
    filter->redirectStdErrToFile(filter->logFile());
    filter->cancelRedirectStdErr();
    EXPECT_EQ(QFileInfo(victim).size(), 4);
}

// The reference meter's record is loudnorm's in form (the same keys, values
// as strings) and BS.1770's in substance; its pass writes nothing and reports
// its progress to the end. With the loudnorm meter, the figures are loudnorm's.
TEST(Loudnorm, RecordsOfBothMetersParseWithLoudnormsKeys)
{
    const QString in = fixtures::makeAudio(scratchDir(), "record.flac", 6, {"-c:a", "flac"}, -4);
    ASSERT_FALSE(in.isEmpty());
    const QJsonObject theirs = loudnormPrintOut(in);
    const fixtures::Loudness independent = fixtures::measureLoudness(in);
    ASSERT_TRUE(!theirs.isEmpty() && independent.ok);

    auto reference = measuringFilter(-16.0f);
    const QString out = outPath("record.flac");
    QFile::remove(out);
    auto t = VXTranscoding::initWithInput(in, out);
    ASSERT_TRUE(t);
    t->addAudioFilter(reference);
    Reports reports;
    ASSERT_EQ(runToEnd(*t, &reports), VXTranscodingCompleted);
    EXPECT_EQ(reports.events().size() >= 2 ? reports.events()[reports.events().size() - 2].second : -1, 100);
    EXPECT_EQ(QFileInfo(out).size(), 0) << "the measuring pass writes no audio";
    reference->redirectStdErrToFile(reference->logFile());
    t.reset();
    reference->cancelRedirectStdErr();
    QFile log(reference->logFile());
    ASSERT_TRUE(log.open(QIODevice::ReadOnly));
    const QByteArray text = log.readAll();
    QJsonParseError error{};
    const QJsonObject ours = QJsonDocument::fromJson(text.mid(text.indexOf('{')), &error).object();
    ASSERT_EQ(error.error, QJsonParseError::NoError) << text.constData();
    EXPECT_EQ(ours.keys(), theirs.keys());
    for (const QString &key : ours.keys())
        EXPECT_TRUE(ours[key].isString()) << key.toStdString();
    EXPECT_NEAR(ours["input_i"].toString().toDouble(), independent.integrated, 0.1);
    EXPECT_NEAR(ours["input_tp"].toString().toDouble(), independent.truePeak, 0.2);
    EXPECT_NEAR(ours["input_lra"].toString().toDouble(), independent.range, 0.5);
    EXPECT_EQ(ours["output_i"].toString(), "-16.00");
    EXPECT_EQ(ours["normalization_type"].toString(), "linear");

    const QJsonObject viaLoudnorm = measure(in, outPath("record-loudnorm.flac"), measuringFilter(-16.0f, VXMeterLoudnorm));
    for (const char *key : {"input_i", "input_tp", "input_lra", "input_thresh"})
        EXPECT_EQ(viaLoudnorm[key].toString(), theirs[key].toString()) << key;
}

// Silence measures "-inf"; a second pass with that must not boost noise or
// fail, and measurements from nowhere leave the level as it was.
TEST(Loudnorm, UnusableMeasurementsLeaveTheLevel)
{
    const QString silent = QDir(scratchDir()).filePath("silent.wav");
    ASSERT_TRUE(fixtures::run("ffmpeg", {"-v", "error", "-y", "-f", "lavfi", "-i", "anullsrc=r=44100:cl=stereo",
                                         "-t", "3", silent}));
    auto filter = measuringFilter(-16.0f);
    const QJsonObject record = measure(silent, outPath("silent.wav"), filter);
    ASSERT_FALSE(record.isEmpty());
    applyMeasurement(*filter, record);
    EXPECT_EQ(runPass(silent, outPath("silent.wav"), filter), VXTranscodingCompleted);

    const QString music = corpusFile("wav16");
    auto forged = measuringFilter(-16.0f);
    applyMeasurement(*forged, QJsonObject{{"input_i", "-inf"}, {"input_tp", "-inf"}, {"input_lra", "0.00"},
                                          {"input_thresh", "-inf"}, {"target_offset", "inf"}});
    ASSERT_EQ(runPass(music, outPath("forged.wav"), forged), VXTranscodingCompleted);
    const fixtures::Loudness before = fixtures::measureLoudness(music), after = fixtures::measureLoudness(outPath("forged.wav"));
    ASSERT_TRUE(before.ok && after.ok);
    EXPECT_NEAR(after.integrated, before.integrated, 0.2);
}

TEST(Loudnorm, RefusedValuesFailAsValues)
{
    EXPECT_FALSE(VXFilter::filterWithName("no-such-filter"));
    auto filter = VXFilter::filterWithName(VXALoudnormName);
    filter->setValue(QStringLiteral("loud"), kVXAIntegratedLoudnessTarget);
    EXPECT_EQ(runPass(corpusFile("wav16"), outPath("refused.wav"), filter), VXTranscodingFailed);
}

// A damaged file makes the decoder complain on every frame; the log gets a
// handful of lines, not thousands.
TEST(Loudnorm, DecoderErrorFloodIsCapped)
{
    const QString clean = fixtures::makeAudio(scratchDir(), "damaged-src.mp3", 20, {"-c:a", "libmp3lame"});
    QFile file(clean);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    QByteArray bytes = file.readAll();
    QRandomGenerator generator(11);
    for (qsizetype i = bytes.size() / 5; i < bytes.size() * 4 / 5; i += 97)
        bytes[i] = char(generator.bounded(256));
    const QString damaged = QDir(scratchDir()).filePath("damaged.mp3");
    QFile out(damaged);
    ASSERT_TRUE(out.open(QIODevice::WriteOnly));
    out.write(bytes);
    out.close();

    std::atomic<int> lines{0};
    const VXLogSink previous = VXSetLogSink([&](const QString &) { ++lines; });
    auto t = VXTranscoding::initWithInput(damaged, outPath("damaged.mp3"));
    const int64_t end = t ? runToEnd(*t) : -1;
    t.reset();
    VXSetLogSink(previous);
    EXPECT_TRUE(end == VXTranscodingCompleted || end == VXTranscodingFailed) << end;
    EXPECT_LE(lines.load(), 30);
}

} // namespace

// Two levels a stereo 1 kHz sine gives exactly (-23 dBFS reads -23 LUFS):
// the curve has one point a step, sits on each level once its 3 s window
// holds that level alone, and the maxima are the louder level.
TEST(LoudnormMeter, ShortTermCurveFollowsKnownLevels)
{
    const QString path = outPath("two-levels.wav");
    const QString tone = "aevalsrc=%1*sin(2*PI*1000*t)|%1*sin(2*PI*1000*t):s=48000:d=6";
    ASSERT_TRUE(fixtures::run("ffmpeg", {"-v", "error", "-y", "-f", "lavfi", "-i", tone.arg(std::pow(10, -23 / 20.0)),
                                         "-f", "lavfi", "-i", tone.arg(std::pow(10, -33 / 20.0)), "-filter_complex",
                                         "[0][1]concat=n=2:v=0:a=1", "-c:a", "pcm_f32le", path}));
    const VXResult<VXLoudness> measured = VXMeasureFile(path, VXMeasureCurve);
    ASSERT_TRUE(measured) << measured.reason().toStdString();
    const VXLoudness &l = *measured;
    ASSERT_EQ(l.shortTerm.size(), size_t(12.0 / kVXShortTermStep + 0.5));
    const size_t window = size_t(kVXShortTermWindow / kVXShortTermStep + 0.5);
    for (size_t k = window - 1; k < 60; ++k)
        EXPECT_NEAR(l.shortTerm[k], -23.0, 0.1) << k;
    for (size_t k = 60 + window - 1; k < 120; ++k)
        EXPECT_NEAR(l.shortTerm[k], -33.0, 0.1) << k;
    // Before the first full window the missing time counts as silence.
    EXPECT_NEAR(l.shortTerm[9], -23.0 + 10 * std::log10(1.0 / 3.0), 0.1);
    EXPECT_NEAR(l.maxShortTerm, -23.0, 0.1);
    EXPECT_NEAR(l.maxMomentary, -23.0, 0.1);
    EXPECT_TRUE(std::isnan(l.truePeak));  // not asked for
}

// loudnorm's meter weighs channels by index. Where the transcoding trusts
// it, its figure agrees with the meter that checks results; where it does
// not (2.1, 6.1, 7.1, a 3-channel file of no stated order, which reads as
// 2.1), the transcoding measures the input itself, as that meter does.
// (The loudnorm meter; the reference meter measures every layout itself.)
TEST(LoudnormMeter, InputIsMeasuredWhereLoudnormWeighsChannelsWrong)
{
    const struct {
        QString layout;
        int channels;
        bool ours;
    } cases[] = {
        {"mono", 1, false}, {"stereo", 2, false}, {"2.1", 3, true},  {"quad", 4, false}, {"5.0(side)", 5, false},
        {"5.1(side)", 6, false}, {"5.1", 6, false}, {"6.1", 7, true}, {"7.1", 8, true}, {"", 3, true},
    };
    for (const auto &c : cases) {
        const QString name = QStringLiteral("input-%1.wav").arg(c.layout.isEmpty() ? "unstated" : c.layout);
        const QString path = fixtures::makeChannels(scratchDir(), name, c.layout, c.channels, 3.0, {"-c:a", "pcm_s16le"});
        ASSERT_FALSE(path.isEmpty()) << name.toStdString();
        const VXResult<VXLoudness> measured = VXMeasureFile(path, 0);
        ASSERT_TRUE(measured) << measured.reason().toStdString();
        const VXLoudness &reference = *measured;

        VXLoudness input;
        const QJsonObject record = measure(path, outPath(name), measuringFilter(-23.0f, VXMeterLoudnorm), &input);
        ASSERT_FALSE(record.isEmpty()) << name.toStdString();
        EXPECT_EQ(input.measured(), c.ours) << name.toStdString();
        if (input.measured()) {
            EXPECT_NEAR(input.integrated, reference.integrated, 0.01) << name.toStdString();
            EXPECT_NEAR(input.threshold, reference.threshold, 0.01) << name.toStdString();
            continue;
        }
        EXPECT_NEAR(record["input_i"].toString().toDouble(), reference.integrated, 0.1) << name.toStdString();
    }
}

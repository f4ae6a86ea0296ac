// Measuring without writing, the meters, and skipping files already at their
// target.
#include "tests/cli/CliTestUtil.h"
#include "tests/support/Fixtures.h"

#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>

#include <cmath>
#include <fcntl.h>
#include <map>
#include <sys/stat.h>
#include <gtest/gtest.h>

TEST_F(CliAnalyze, WritesNothingAndAgreesWithAnIndependentMeter)
{
    const QString in = tmp.filePath("in");
    QDir().mkpath(in);
    const QString wav = fixtures::makeAudio(in, "quiet.wav", 10, {"-c:a", "pcm_s16le"}, -12);
    const QString mp3 = fixtures::makeAudio(in, "hot.mp3", 10, {"-c:a", "libmp3lame", "-b:a", "192k"}, 4);
    ASSERT_FALSE(wav.isEmpty() || mp3.isEmpty());
    const QByteArray before = fixtures::readFile(wav) + fixtures::readFile(mp3);

    const CliRunResult r = runCli({"--analyze", "--json", "--preset", "streaming", in}, QProcessEnvironment::systemEnvironment(),
                                  tmp.path());
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    EXPECT_EQ(fixtures::readFile(wav) + fixtures::readFile(mp3), before);
    EXPECT_EQ(QDir(tmp.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot), QStringList{"in"});
    EXPECT_EQ(entries(in).size(), 2);

    const QJsonArray results = r.json();
    ASSERT_EQ(results.size(), 2) << r.out.toStdString();
    for (const QJsonValue &v : results) {
        const QJsonObject o = v.toObject();
        const QString file = o["input"].toString();
        EXPECT_EQ(o["result"].toString(), "analyzed");
        EXPECT_TRUE(o["output"].isNull());
        const fixtures::Loudness l = fixtures::measureLoudness(file);
        ASSERT_TRUE(l.ok) << file.toStdString();
        EXPECT_NEAR(o["input_i"].toDouble(), l.integrated, 0.2) << file.toStdString();
        EXPECT_NEAR(o["input_tp"].toDouble(), l.truePeak, 0.3) << file.toStdString();
        EXPECT_NEAR(o["input_lra"].toDouble(), l.range, 1.0) << file.toStdString();
        // The maxima came back from the worker with the rest (gating can
        // put the integrated figure a little above every 3 s window).
        EXPECT_GE(o["max_short_term"].toDouble(), o["input_i"].toDouble() - 1.0);
        EXPECT_GE(o["max_momentary"].toDouble(), o["max_short_term"].toDouble());
        // The gain a -14 LUFS job would apply: all of it, or up to the ceiling.
        const double full = -14.0 - o["input_i"].toDouble();
        if (o["input_tp"].toDouble() + full <= -2.0) {
            EXPECT_EQ(o["normalization"].toString(), "linear") << file.toStdString();
            EXPECT_NEAR(o["gain_db"].toDouble(), full, 0.02);
        } else {
            EXPECT_EQ(o["normalization"].toString(), "peak-capped") << file.toStdString();
            EXPECT_NEAR(o["gain_db"].toDouble(), -2.0 - o["input_tp"].toDouble(), 0.02);
        }
    }

    // Pictures go only where they are asked for.
    const CliRunResult plotted = runCli({"--analyze", "--plot", tmp.filePath("plots"), wav});
    ASSERT_EQ(plotted.exitCode, 0) << plotted.err.toStdString();
    EXPECT_EQ(entries(tmp.filePath("plots")), QStringList{"quiet.wav.png"});
    EXPECT_EQ(fixtures::readFile(wav) + fixtures::readFile(mp3), before);
}

namespace {

// What FFmpeg's own loudnorm filter measures, as an ffmpeg two-pass script reads it.
double loudnormInputI(const QString &path)
{
    QString out;
    if (!fixtures::run("ffmpeg", {"-hide_banner", "-nostats", "-i", path, "-af",
                                  "loudnorm=I=-24:TP=-2:print_format=json", "-f", "null", "-"},
                       &out))
        return NAN;
    const qsizetype open = out.lastIndexOf('{');
    const qsizetype close = out.lastIndexOf('}');
    if (open < 0 || close < open)
        return NAN;
    return QJsonDocument::fromJson(out.mid(open, close - open + 1).toUtf8()).object()["input_i"].toString().toDouble();
}

} // namespace

// One meter plans and checks: the figures are BS.1770's (FFmpeg's ebur128
// agrees), short clips and mono files land on the target, and no pass runs
// again to cover a disagreement between meters. --meter loudnorm still gives
// loudnorm's own figures; --quick is still accepted.
TEST_F(CliMeter, PlansAndChecksWithOneMeterAndSkipLeavesFilesAlone)
{
    const QString in = tmp.filePath("in");
    QDir().mkpath(in);
    ASSERT_FALSE(fixtures::makeAudio(in, "a.flac", 8, {"-c:a", "flac", "-ar", "48000"}, -10).isEmpty());
    ASSERT_FALSE(fixtures::makeAudio(in, "b.m4a", 8, {"-c:a", "aac", "-b:a", "160k"}, -2).isEmpty());
    ASSERT_FALSE(fixtures::makeAudio(in, "clip.mp4", 4.5, {"-c:a", "aac", "-b:a", "128k"}, 3).isEmpty());
    ASSERT_FALSE(fixtures::makeAudio(in, "mono.mp3", 6, {"-c:a", "libmp3lame", "-ac", "1", "-b:a", "96k"}, 1).isEmpty());

    auto run = [&](const QStringList &extra, const QString &out) {
        const CliRunResult r = runCli(QStringList{"--json", "-o", tmp.filePath(out), in} + extra);
        EXPECT_EQ(r.exitCode, 0) << r.err.toStdString();
        std::map<QString, QJsonObject> byFile;
        for (const QJsonValue &v : r.json())
            byFile[QFileInfo(v.toObject()["input"].toString()).fileName()] = v.toObject();
        return byFile;
    };
    for (const double target : {-14.0, -24.0}) {
        const QString out = QStringLiteral("at%1").arg(-target);
        const auto normal = run({"--lufs", QString::number(target)}, out);
        ASSERT_EQ(normal.size(), 4u);
        for (const auto &[name, o] : normal) {
            const std::string file = name.toStdString() + " at " + std::to_string(target);
            ASSERT_EQ(o["result"].toString(), "ok") << file << " " << o["reason"].toString().toStdString();
            const fixtures::Loudness input = fixtures::measureLoudness(o["input"].toString());
            const fixtures::Loudness output = fixtures::measureLoudness(o["output"].toString());
            ASSERT_TRUE(input.ok && output.ok) << file;
            EXPECT_NEAR(o["input_i"].toDouble(), input.integrated, 0.1) << file;
            EXPECT_NEAR(output.integrated, o["output_i"].toDouble(), 0.1) << file;
            if (o["normalization"].toString() == "linear") {
                EXPECT_NEAR(output.integrated, target, 0.5) << file;
            }
            // At -24 a lossy encoder drops up to half a LU of a quiet mono
            // tone; at -14 nothing is lost, so nothing may run again.
            if (target == -14.0) {
                EXPECT_EQ(o["correction_passes"].toInt(), 0) << file;
            }
        }
    }

    const auto quick = run({"--quick"}, "quick");
    const auto normal = run({}, "default");
    const auto loudnorm = run({"--meter", "loudnorm"}, "loudnorm");
    ASSERT_EQ(quick.size(), 4u);
    ASSERT_EQ(loudnorm.size(), 4u);
    for (const auto &[name, o] : normal) {
        EXPECT_EQ(quick.at(name)["input_i"].toDouble(), o["input_i"].toDouble()) << name.toStdString();
        const QJsonObject &l = loudnorm.at(name);
        EXPECT_EQ(l["result"].toString(), "ok") << name.toStdString();
        EXPECT_NEAR(l["input_i"].toDouble(), loudnormInputI(o["input"].toString()), 0.011) << name.toStdString();
        EXPECT_TRUE(l["input_thresh"].isDouble() && l["input_lra"].isDouble());
    }

    // A result at the target, run again in place: nothing is written.
    const QString done = tmp.filePath("default/a.flac");
    const QByteArray before = fixtures::readFile(done);
    const QDateTime mtime = QFileInfo(done).lastModified();
    const CliRunResult again = runCli({"--json", "--skip-within", "0.5", "--replace", done});
    ASSERT_EQ(again.exitCode, 0) << again.err.toStdString();
    const QJsonObject o = again.json().at(0).toObject();
    EXPECT_EQ(o["result"].toString(), "skipped");
    EXPECT_NEAR(o["input_i"].toDouble(), -24.0, 0.5);
    EXPECT_EQ(fixtures::readFile(done), before);
    EXPECT_EQ(QFileInfo(done).lastModified(), mtime);
    EXPECT_EQ(entries(tmp.filePath("default")).size(), 4);
}

namespace {

timespec stampOf(const QString &path)
{
    struct stat st {};
    ::stat(QFile::encodeName(path).constData(), &st);
    return st.st_mtim;
}

bool stamp(const QString &path, timespec when)
{
    const timespec times[2] = {when, when};
    return ::utimensat(AT_FDCWD, QFile::encodeName(path).constData(), times, 0) == 0;
}

} // namespace

// A second run takes each file's kept figures: the files' audio is gone
// (same length, same stamp), and the report is the first run's, pictures
// too. --no-cache decodes, and fails on them.
TEST_F(CliAnalyze, ASecondRunReadsTheKeptMeasurements)
{
    const QString in = tmp.filePath("in");
    QDir().mkpath(in);
    const QStringList files{fixtures::makeAudio(in, "a.wav", 5, {"-c:a", "pcm_s16le"}, -9),
                            fixtures::makeAudio(in, "b.mp3", 4, {"-c:a", "libmp3lame", "-b:a", "128k"})};
    for (const QString &f : files) {
        ASSERT_FALSE(f.isEmpty());
        timespec t = stampOf(f);
        t.tv_sec -= 3600;  // settled: kept
        ASSERT_TRUE(stamp(f, t));
    }
    const QString db = tmp.filePath("kept.sqlite");
    const CliRunResult first = runCli({"--analyze", "--json", "--cache", db, in});
    ASSERT_EQ(first.exitCode, 0) << first.err.toStdString();
    ASSERT_TRUE(QFileInfo::exists(db));

    for (const QString &f : files) {
        const timespec t = stampOf(f);
        ASSERT_TRUE(fixtures::writeFile(f, QByteArray(QFileInfo(f).size(), 'z')) && stamp(f, t));
    }
    const CliRunResult second = runCli({"--analyze", "--json", "--cache", db, "--plot", tmp.filePath("plots"), in});
    ASSERT_EQ(second.exitCode, 0) << second.err.toStdString();
    ASSERT_EQ(second.json().size(), 2);
    for (qsizetype i = 0; i < 2; ++i) {
        const QJsonObject a = first.json()[i].toObject(), b = second.json()[i].toObject();
        for (const char *key : {"input", "result", "input_i", "input_tp", "input_lra", "input_thresh", "max_short_term",
                                "max_momentary", "gain_db", "normalization"})
            EXPECT_EQ(a[key], b[key]) << key;
    }
    EXPECT_EQ(entries(tmp.filePath("plots")), (QStringList{"a.wav.png", "b.mp3.png"}));

    const CliRunResult uncached = runCli({"--analyze", "--json", "--no-cache", in});
    EXPECT_EQ(uncached.exitCode, 1);
    for (const QJsonValue &v : uncached.json())
        EXPECT_EQ(v.toObject()["result"].toString(), "failed");
    EXPECT_EQ(runCli({"--analyze", "--cache", db, "--no-cache", in}).exitCode, 2);
}

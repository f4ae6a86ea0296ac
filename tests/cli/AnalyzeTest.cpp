// Measuring without writing, quick measurement, and skipping files already
// at their target.
#include "tests/cli/CliTestUtil.h"
#include "tests/support/Fixtures.h"

#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <QJsonObject>

#include <map>
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

TEST_F(CliQuick, AgreesWithTheDefaultAndSkipLeavesFilesAlone)
{
    const QString in = tmp.filePath("in");
    QDir().mkpath(in);
    ASSERT_FALSE(fixtures::makeAudio(in, "a.flac", 8, {"-c:a", "flac", "-ar", "48000"}, -10).isEmpty());
    ASSERT_FALSE(fixtures::makeAudio(in, "b.m4a", 8, {"-c:a", "aac", "-b:a", "160k"}, -2).isEmpty());

    auto run = [&](const QStringList &extra, const QString &out) {
        const CliRunResult r = runCli(QStringList{"--json", "-o", tmp.filePath(out), in} + extra);
        EXPECT_EQ(r.exitCode, 0) << r.err.toStdString();
        std::map<QString, QJsonObject> byFile;
        for (const QJsonValue &v : r.json())
            byFile[QFileInfo(v.toObject()["input"].toString()).fileName()] = v.toObject();
        return byFile;
    };
    const auto normal = run({}, "default");
    const auto quick = run({"--quick"}, "quick");
    ASSERT_EQ(normal.size(), 2u);
    ASSERT_EQ(quick.size(), 2u);
    for (const auto &[name, o] : normal) {
        const QJsonObject &q = quick.at(name);
        EXPECT_EQ(q["result"].toString(), "ok") << name.toStdString();
        EXPECT_NEAR(q["input_i"].toDouble(), o["input_i"].toDouble(), 0.2) << name.toStdString();
        EXPECT_NEAR(q["gain_db"].toDouble(), o["gain_db"].toDouble(), 0.2) << name.toStdString();
        EXPECT_NEAR(q["output_i"].toDouble(), o["output_i"].toDouble(), 0.2) << name.toStdString();
        EXPECT_TRUE(q["input_thresh"].isDouble() && q["input_lra"].isDouble());
    }

    // A result at the target, run again in place: nothing is written.
    const QString done = tmp.filePath("quick/a.flac");
    const QByteArray before = fixtures::readFile(done);
    const QDateTime mtime = QFileInfo(done).lastModified();
    const CliRunResult again = runCli({"--json", "--skip-within", "0.5", "--replace", done});
    ASSERT_EQ(again.exitCode, 0) << again.err.toStdString();
    const QJsonObject o = again.json().at(0).toObject();
    EXPECT_EQ(o["result"].toString(), "skipped");
    EXPECT_NEAR(o["input_i"].toDouble(), -24.0, 0.5);
    EXPECT_EQ(fixtures::readFile(done), before);
    EXPECT_EQ(QFileInfo(done).lastModified(), mtime);
    EXPECT_EQ(entries(tmp.filePath("quick")).size(), 2);
}

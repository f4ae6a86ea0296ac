#include "tests/cli/CliTestUtil.h"
#include "tests/support/FileWatch.h"
#include "tests/support/Fixtures.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QThread>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <gtest/gtest.h>

namespace {

// The tags an independent reader sees, format and stream tags together.
QMap<QString, QString> probeTags(const QString &path)
{
    QString out;
    fixtures::run("ffprobe", {"-v", "error", "-show_entries", "format_tags:stream_tags", "-of", "json", path}, &out);
    const QJsonObject o = QJsonDocument::fromJson(out.toUtf8()).object();
    QMap<QString, QString> tags;
    QJsonArray holders = o["streams"].toArray();
    holders.append(o["format"]);
    for (const QJsonValue &h : holders) {
        const QJsonObject t = h.toObject()["tags"].toObject();
        for (auto it = t.begin(); it != t.end(); ++it)
            tags[it.key().toUpper()] = it.value().toString();
    }
    return tags;
}

QString audioChecksum(const QString &path)
{
    QString out;
    fixtures::run("ffmpeg", {"-v", "error", "-i", path, "-map", "0:a", "-c", "copy", "-f", "md5", "-"}, &out);
    return out.trimmed();
}

} // namespace

// Quiet interlude, two songs and a loud single: after normalising, each is
// as far from the others as before, whatever the album's gain.
TEST_F(CliAlbum, TracksKeepTheirDifferencesAndTheAlbumReachesTheTarget)
{
    const double levels[] = {-14, -6, -3, 2};
    QStringList inputs;
    for (int i = 0; i < 4; ++i)
        inputs << fixtures::makeAudio(tmp.path(), QStringLiteral("t%1.flac").arg(i), 6,
                                      {"-c:a", "flac", "-metadata", "album=Evenloud Sessions"}, levels[i]);
    // Untagged, beside them: a folder album of its own.
    inputs << fixtures::makeAudio(tmp.path(), "single.wav", 4, {"-c:a", "pcm_s16le"}, -8);
    ASSERT_FALSE(inputs.contains(QString()));

    const CliRunResult analysis = runCli(QStringList{"--json", "--analyze", "--album", "--lufs", "-20"} + inputs);
    ASSERT_EQ(analysis.exitCode, 0);
    const CliRunResult run = runCli(QStringList{"--json", "--album", "--lufs", "-20", "--true-peak", "-1",
                                                "-o", tmp.filePath("out")} + inputs);
    ASSERT_EQ(run.exitCode, 0);
    const QJsonArray analyzed = analysis.json(), results = run.json();
    ASSERT_EQ(results.size(), 5);
    ASSERT_EQ(analyzed.size(), 5);
    std::vector<double> moved;
    for (int i = 0; i < 5; ++i) {
        const QJsonObject o = results[i].toObject();
        const fixtures::Loudness before = fixtures::measureLoudness(inputs[i]);
        const fixtures::Loudness after = fixtures::measureLoudness(o["output"].toString());
        ASSERT_TRUE(before.ok && after.ok);
        const QJsonObject album = o["album"].toObject();
        EXPECT_EQ(album["name"].toString(), i < 4 ? QStringLiteral("Evenloud Sessions") : tmp.path());
        // --analyze reports the same album without writing.
        EXPECT_NEAR(analyzed[i].toObject()["album"].toObject()["gain_db"].toDouble(), album["gain_db"].toDouble(), 0.01);
        EXPECT_NEAR(o["gain_db"].toDouble(), album["gain_db"].toDouble(), 1e-6);
        if (i < 4)
            moved.push_back(after.integrated - before.integrated);
        const double reached = album["input_i"].toDouble() + album["gain_db"].toDouble();
        if (album["normalization"].toString() == "linear")
            EXPECT_NEAR(reached, -20.0, 0.5);
        else
            EXPECT_EQ(album["normalization"].toString(), "peak-capped");
        EXPECT_LE(album["input_tp"].toDouble() + album["gain_db"].toDouble(), -1.0 + 1e-6);
    }
    for (double m : moved)
        EXPECT_NEAR(m, moved[0], 0.1) << "a track moved by a different amount";
}

// Every container's tags, read back by FFmpeg, agree with its meter; the
// audio packets are untouched; in place, the file is replaced.
TEST_F(CliTags, EachContainerCarriesGainsAnIndependentMeterAgreesWith)
{
    const QList<QStringList> kinds = {
        {"a.flac", "-c:a", "flac"},
        {"b.mp3", "-c:a", "libmp3lame", "-b:a", "192k"},
        {"c.ogg", "-c:a", "libvorbis"},
        {"d.ogg", "-c:a", "libopus", "-b:a", "96k"},
        {"e.m4a", "-c:a", "aac"},
        {"f.wma", "-c:a", "wmav2"},
        // No INFO chunk: FFmpeg reads a WAV's ID3 chunk only without one.
        {"g.wav", "-c:a", "pcm_s16le", "-fflags", "+bitexact", "-map_metadata", "-1"},
    };
    QStringList inputs, checksums;
    for (const QStringList &k : kinds) {
        inputs << fixtures::makeAudio(tmp.path(), k[0], 5, k.mid(1), -6);
        checksums << audioChecksum(inputs.last());
    }
    ASSERT_FALSE(inputs.contains(QString()));
    // The first in place, the others into copies.
    const CliRunResult inPlace = runCli({"--json", "--tags-only", inputs[0]});
    ASSERT_EQ(inPlace.exitCode, 0);
    const CliRunResult copies = runCli(QStringList{"--json", "--tags-only", "--album", "-o", tmp.filePath("out")} + inputs.mid(1));
    ASSERT_EQ(copies.exitCode, 0);
    QJsonArray results = copies.json();
    results.prepend(inPlace.json()[0]);
    ASSERT_EQ(results.size(), inputs.size());
    for (qsizetype i = 0; i < inputs.size(); ++i) {
        const QJsonObject o = results[i].toObject();
        const QString out = o["output"].toString();
        SCOPED_TRACE(out.toStdString());
        EXPECT_EQ(o["result"].toString(), "tagged");
        EXPECT_EQ(out, i == 0 ? inputs[0] : tmp.filePath("out/") + QFileInfo(inputs[i]).fileName());
        EXPECT_EQ(audioChecksum(out), checksums[i]);
        const fixtures::Loudness independent = fixtures::measureLoudness(out);
        ASSERT_TRUE(independent.ok);
        const QMap<QString, QString> tags = probeTags(out);
        const double trackGain = o["tags"].toObject()["track_gain_db"].toDouble();
        EXPECT_NEAR(trackGain, -18.0 - independent.integrated, 0.1);
        if (kinds[i][2] == "libopus") {
            EXPECT_NEAR(tags.value("R128_TRACK_GAIN").toDouble() / 256.0, -23.0 - independent.integrated, 0.1);
            EXPECT_FALSE(tags.value("R128_ALBUM_GAIN").isEmpty());
            EXPECT_FALSE(tags.contains("REPLAYGAIN_TRACK_GAIN"));
            EXPECT_FALSE(tags.contains("REPLAYGAIN_REFERENCE_LOUDNESS"));
            continue;
        }
        EXPECT_EQ(tags.value("REPLAYGAIN_REFERENCE_LOUDNESS"), "-18.00 LUFS");
        EXPECT_NEAR(tags.value("REPLAYGAIN_TRACK_GAIN").section(' ', 0, 0).toDouble(), trackGain, 0.005);
        EXPECT_NEAR(20 * std::log10(tags.value("REPLAYGAIN_TRACK_PEAK").toDouble()), independent.truePeak, 0.3);
        EXPECT_EQ(tags.contains("REPLAYGAIN_ALBUM_GAIN"), i > 0);
    }
}

// However a kill lands, the file is whole: the original or the tagged one.
TEST_F(CliTags, KilledWhileTaggingLeavesTheOriginalOrTheTaggedFile)
{
    const QString input = fixtures::makeAudio(tmp.path(), "long.wav", 120, {"-c:a", "pcm_s16le"});
    ASSERT_FALSE(input.isEmpty());
    const QString reference = tmp.filePath("ref.wav");
    ASSERT_TRUE(QFile::copy(input, reference));
    QElapsedTimer clock;
    clock.start();
    ASSERT_EQ(runCli({"--tags-only", reference}).exitCode, 0);
    const int span = int(std::max<qint64>(clock.elapsed(), 10));  // where kills land, not a check
    const QByteArray original = fixtures::readFile(input), tagged = fixtures::readFile(reference);
    ASSERT_NE(original, tagged);
    ASSERT_TRUE(QFile::copy(input, tmp.filePath("orig.wav")));
    for (int round = 0; round < 10; ++round) {
        QProcess p;
        p.start(QStringLiteral(EVENLOUD_CLI), {"--tags-only", input});
        ASSERT_TRUE(p.waitForStarted(-1));
        QThread::msleep(QRandomGenerator::global()->bounded(span));
        p.kill();
        ASSERT_TRUE(p.waitForFinished(60000));
        const QByteArray now = fixtures::readFile(input);
        ASSERT_TRUE(now == original || now == tagged) << "round " << round;
        if (now == tagged) {  // back to the start for the next round
            QFile::remove(input);
            ASSERT_TRUE(QFile::copy(tmp.filePath("orig.wav"), input));
        }
    }
}

// Album tags: the report carries each album's figures beside what was
// written, and what is on disk agrees with it; the album gain stays the
// tags' own (to -18 LUFS), not a gain the tracks took.
TEST_F(CliTags, AlbumFiguresInTheReportMatchTheTagsWritten)
{
    QDir().mkpath(tmp.filePath("loose"));
    const QStringList inputs = {
        fixtures::makeAudio(tmp.path(), "quiet.flac", 4, {"-c:a", "flac", "-metadata", "album=Evenloud Sessions"}, -16),
        fixtures::makeAudio(tmp.path(), "loud.mp3", 5, {"-c:a", "libmp3lame", "-metadata", "album=Evenloud Sessions"}, -4),
        fixtures::makeAudio(tmp.filePath("loose"), "single.flac", 3, {"-c:a", "flac"}, -10),
    };
    ASSERT_FALSE(inputs.contains(QString()));
    const CliRunResult run = runCli(QStringList{"--json", "--tags-only", "--album", "-o", tmp.filePath("out")} + inputs);
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    const QJsonArray results = run.json();
    ASSERT_EQ(results.size(), 3);
    double loudestPeak = 0;
    for (int i = 0; i < 2; ++i)
        loudestPeak = std::max(loudestPeak, results[i].toObject()["tags"].toObject()["track_peak"].toDouble());
    for (int i = 0; i < 3; ++i) {
        const QJsonObject o = results[i].toObject();
        SCOPED_TRACE(inputs[i].toStdString());
        ASSERT_EQ(o["result"].toString(), "tagged");
        const QJsonObject album = o["album"].toObject(), tags = o["tags"].toObject();
        EXPECT_EQ(album["name"].toString(), i < 2 ? QStringLiteral("Evenloud Sessions") : tmp.filePath("loose"));
        EXPECT_TRUE(album["gain_db"].isNull());
        EXPECT_TRUE(o["gain_db"].isNull());
        ASSERT_TRUE(album["input_i"].isDouble());
        EXPECT_NEAR(tags["track_gain_db"].toDouble(), -18.0 - o["input_i"].toDouble(), 0.02);
        EXPECT_NEAR(tags["album_gain_db"].toDouble(), -18.0 - album["input_i"].toDouble(), 0.02);
        if (i < 2) {
            EXPECT_EQ(album, results[1 - i].toObject()["album"].toObject());
            EXPECT_EQ(tags["album_peak"].toDouble(), loudestPeak);
        } else {  // alone in its album
            EXPECT_NEAR(album["input_i"].toDouble(), o["input_i"].toDouble(), 0.01);
        }
        const QMap<QString, QString> written = probeTags(o["output"].toString());
        EXPECT_NEAR(written.value("REPLAYGAIN_ALBUM_GAIN").section(' ', 0, 0).toDouble(), tags["album_gain_db"].toDouble(), 0.005);
    }
    const double quiet = results[0].toObject()["input_i"].toDouble(), loud = results[1].toObject()["input_i"].toDouble();
    const double albumI = results[0].toObject()["album"].toObject()["input_i"].toDouble();
    EXPECT_TRUE(albumI > quiet && albumI < loud) << albumI;
}

// An interrupt while one track measures its album for both: the track
// waiting for that measurement ends too, at once, and nothing is written.
TEST_F(CliTags, InterruptWhileAnAlbumIsMeasuredCancelsEveryTrack)
{
    const QString first = fixtures::makeLong(tmp.path(), "long.flac", 1800);
    ASSERT_FALSE(first.isEmpty());
    const QString second = tmp.filePath("long2.flac");
    ASSERT_TRUE(QFile::copy(first, second));
    const QString out = tmp.filePath("out");
    fixtures::FileWatch opened(first, fixtures::FileWatch::Use::Open);
    QProcess p;
    p.start(QStringLiteral(EVENLOUD_CLI), {"--json", "--tags-only", "--album", "-j", "2", "-o", out, first, second});
    ASSERT_TRUE(p.waitForStarted(-1));
    ASSERT_TRUE(opened.wait());  // probed, read for its album tag, measured
    while (opened.wait(500)) {
    }
    ::kill(pid_t(p.processId()), SIGINT);
    // Measuring the album takes well over a minute.
    ASSERT_TRUE(p.waitForFinished(5000));
    const QString err = QString::fromUtf8(p.readAllStandardError());
    EXPECT_EQ(p.exitCode(), 128 + SIGINT) << err.toStdString();
    EXPECT_TRUE(err.contains("Interrupted: cancelling the files being measured")) << err.toStdString();
    const QJsonArray results = QJsonDocument::fromJson(p.readAllStandardOutput()).array();
    ASSERT_EQ(results.size(), 2);
    for (const QJsonValue &v : results)
        EXPECT_EQ(v.toObject()["result"].toString(), "cancelled");
    EXPECT_TRUE(entries(out).isEmpty());
}

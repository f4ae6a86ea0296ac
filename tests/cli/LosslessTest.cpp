#include "tests/cli/CliTestUtil.h"
#include "tests/support/Fixtures.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <gtest/gtest.h>

using CliLossless = CliFolderTest;

namespace {

// The coded audio packets, one after another, as the demuxer gives them.
QByteArray audioPackets(const QString &path)
{
    const QString out = path + ".packets";
    const bool ok = fixtures::run("ffmpeg", {"-nostdin", "-loglevel", "error", "-y", "-i", path, "-map", "0:a:0",
                                             "-c", "copy", "-f", "data", out});
    const QByteArray bytes = ok ? fixtures::readFile(out) : QByteArray();
    QFile::remove(out);
    return bytes;
}

// Tags as ffprobe reads them, container and streams alike, keys in upper case.
QMap<QString, QString> tags(const QString &path)
{
    QString json;
    QMap<QString, QString> found;
    if (!fixtures::run("ffprobe", {"-v", "error", "-show_entries", "format_tags:stream_tags", "-of", "json", path}, &json))
        return found;
    const QJsonObject probe = QJsonDocument::fromJson(json.toUtf8()).object();
    auto take = [&found](const QJsonObject &t) {
        for (auto it = t.begin(); it != t.end(); ++it)
            found[it.key().toUpper()] = it.value().toString();
    };
    take(probe["format"].toObject()["tags"].toObject());
    for (const QJsonValue &s : probe["streams"].toArray())
        take(s.toObject()["tags"].toObject());
    return found;
}

// The file's first Ogg page: the OpusHead, with the output gain.
QByteArray firstPage(const QString &path)
{
    const QByteArray bytes = fixtures::readFile(path);
    if (bytes.size() < 27 || bytes.size() < 27 + quint8(bytes[26]))
        return {};
    int size = 27 + quint8(bytes[26]);
    for (int i = 0; i < quint8(bytes[26]); ++i)
        size += quint8(bytes[27 + i]);
    return bytes.left(size);
}

QJsonObject byName(const QJsonArray &results, const QString &suffix)
{
    for (const QJsonValue &v : results)
        if (v.toObject()["input"].toString().endsWith(suffix))
            return v.toObject();
    return {};
}

} // namespace

// One run over three formats: each gets the kind its format allows, the
// others the usual way with the reason, and every level is the one planned.
TEST_F(CliLossless, MixedFormatsEachGetTheirKind)
{
    const QString in = tmp.filePath("in");
    QDir().mkpath(in);
    ASSERT_FALSE(fixtures::makeAudio(in, "a.mp3", 8, {"-c:a", "libmp3lame", "-q:a", "3"}).isEmpty());
    ASSERT_FALSE(fixtures::makeAudio(in, "b.ogg", 8, {"-c:a", "libopus", "-b:a", "96k"}).isEmpty());
    ASSERT_FALSE(fixtures::makeAudio(in, "c.flac", 8, {"-c:a", "flac"}).isEmpty());
    ASSERT_FALSE(fixtures::makeAudio(in, "d.m4a", 8, {"-c:a", "aac", "-b:a", "128k"}).isEmpty());
    const CliRunResult r = runCli({"--lossless", "--lufs", "-21", "-o", tmp.filePath("out"), "--json", in});
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString() << r.out.toStdString();
    const QJsonArray results = r.json();
    ASSERT_EQ(results.size(), 4) << r.out.toStdString();

    const QJsonObject mp3 = byName(results, "a.mp3"), opus = byName(results, "b.ogg"), flac = byName(results, "c.flac");
    EXPECT_EQ(mp3["normalization"].toString(), "lossless-step");
    EXPECT_EQ(opus["normalization"].toString(), "lossless");
    EXPECT_NE(flac["normalization"].toString(), "lossless");
    EXPECT_TRUE(mp3["lossless"].toObject()["applied"].toBool());
    EXPECT_FALSE(flac["lossless"].toObject()["applied"].toBool());
    EXPECT_FALSE(flac["lossless"].toObject()["fallback"].toString().isEmpty());
    // AAC is coded anew, and says why rather than claiming it has no gain field.
    const QJsonObject aac = byName(results, "d.m4a");
    EXPECT_EQ(aac["result"].toString(), "ok");
    EXPECT_TRUE(aac["lossless"].toObject()["fallback"].toString().contains("AAC")) << aac["lossless"].toObject()["fallback"].toString().toStdString();
    // Whole steps, within half a step of the plan; Opus to the 1/256 dB.
    const double steps = mp3["lossless"].toObject()["steps"].toDouble();
    EXPECT_NEAR(mp3["gain_db"].toDouble(), steps * 1.505, 0.01);
    EXPECT_LE(std::fabs(mp3["lossless"].toObject()["offset_db"].toDouble()), 0.76);
    EXPECT_NEAR(opus["output_i"].toDouble(), -21.0, 0.3);
    for (const QJsonObject &o : {mp3, opus, flac}) {
        EXPECT_EQ(o["result"].toString(), "ok") << o["input"].toString().toStdString();
        // On an independent meter, the result moved by the gain applied.
        const fixtures::Loudness before = fixtures::measureLoudness(o["input"].toString());
        const fixtures::Loudness after = fixtures::measureLoudness(o["output"].toString());
        ASSERT_TRUE(before.ok && after.ok);
        if (o["normalization"].toString().startsWith("lossless")) {
            EXPECT_NEAR(after.integrated - before.integrated, o["gain_db"].toDouble(), 0.1) << o["input"].toString().toStdString();
        }
    }
}

// In place and back: the change is recorded in a tag, Opus's stale R128
// gain goes and comes back, and the undo leaves the audio packets exactly
// as they were.
TEST_F(CliLossless, UndoGivesBackTheSamePackets)
{
    const QString mp3 = fixtures::makeAudio(tmp.path(), "song.mp3", 6, {"-c:a", "libmp3lame", "-b:a", "160k",
                                                                        "-metadata", "title=Song"});
    const QString opus = fixtures::makeAudio(tmp.path(), "talk.ogg", 6, {"-c:a", "libopus", "-b:a", "64k",
                                                                          "-metadata", "R128_TRACK_GAIN=-512"});
    ASSERT_FALSE(mp3.isEmpty() || opus.isEmpty());
    ASSERT_EQ(tags(opus).value("R128_TRACK_GAIN"), "-512");
    const QByteArray mp3Packets = audioPackets(mp3), opusPackets = audioPackets(opus);
    const QByteArray opusHead = firstPage(opus);
    ASSERT_FALSE(opusHead.isEmpty());

    const CliRunResult gained = runCli({"--lossless", "--lufs", "-26", "--replace", "--json", mp3, opus});
    ASSERT_EQ(gained.exitCode, 0) << gained.err.toStdString();
    for (const QString &file : {mp3, opus})
        EXPECT_TRUE(tags(file).value("EVENLOUD_LOSSLESS").startsWith("v=1;")) << file.toStdString();
    EXPECT_FALSE(tags(opus).contains("R128_TRACK_GAIN"));
    EXPECT_EQ(tags(mp3).value("TITLE"), "Song");
    EXPECT_NE(audioPackets(mp3), mp3Packets);   // the gain fields moved
    EXPECT_EQ(audioPackets(opus), opusPackets); // only the header did
    EXPECT_NE(firstPage(opus), opusHead);

    const CliRunResult undone = runCli({"--undo-lossless", "--json", mp3, opus});
    ASSERT_EQ(undone.exitCode, 0) << undone.err.toStdString();
    for (const QJsonValue &v : undone.json())
        EXPECT_EQ(v.toObject()["result"].toString(), "restored");
    EXPECT_EQ(audioPackets(mp3), mp3Packets);
    EXPECT_EQ(audioPackets(opus), opusPackets);
    EXPECT_EQ(firstPage(opus), opusHead);
    EXPECT_FALSE(tags(mp3).contains("EVENLOUD_LOSSLESS"));
    EXPECT_EQ(tags(opus).value("R128_TRACK_GAIN"), "-512");

    // Nothing recorded any more: nothing to undo, and said so.
    const CliRunResult again = runCli({"--undo-lossless", "--json", mp3});
    ASSERT_EQ(again.exitCode, 0);
    EXPECT_EQ(again.json()[0].toObject()["result"].toString(), "skipped");
    // Coded anew, a file keeps no record of gain fields it no longer has:
    // undoing it would move the new level.
    ASSERT_EQ(runCli({"--lossless", "--lufs", "-26", "--replace", mp3}).exitCode, 0);
    ASSERT_TRUE(tags(mp3).contains("EVENLOUD_LOSSLESS"));
    const QString out = tmp.path() + "/out";
    const CliRunResult reencoded = runCli({"--lufs", "-20", "--output-folder", out, "--json", mp3});
    ASSERT_EQ(reencoded.exitCode, 0) << reencoded.err.toStdString();
    const QString written = reencoded.json()[0].toObject()["output"].toString();
    EXPECT_FALSE(tags(written).contains("EVENLOUD_LOSSLESS"));
    EXPECT_TRUE(tags(written).contains("EVENLOUD"));
}

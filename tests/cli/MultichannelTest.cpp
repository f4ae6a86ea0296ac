#include "tests/cli/CliTestUtil.h"
#include "tests/support/Fixtures.h"

#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMap>
#include <gtest/gtest.h>

namespace {

// A layout as FFmpeg names it (empty: no order stated) and its channel count.
struct Layout {
    QString name;
    int channels;
};

// What ffprobe says of a file's first audio stream: layout (empty when it
// names none) and channel count.
std::pair<QString, int> probeChannels(const QString &path)
{
    QString out;
    if (!fixtures::run("ffprobe", {"-v", "error", "-select_streams", "a:0", "-show_entries",
                                   "stream=channel_layout,channels", "-of", "json", path}, &out))
        return {};
    const QJsonObject stream = QJsonDocument::fromJson(out.toUtf8())["streams"].toArray().first().toObject();
    return {stream["channel_layout"].toString(), stream["channels"].toInt()};
}

} // namespace

// Every layout a file may come in, in the formats that carry it, through the
// tool as a user runs it: each file reaches the level on FFmpeg's own meter
// and keeps its channels and their layout. Surround layouts other than their
// count's default (5.1(side), 5.0(side), quad) used to fail at the check of
// the result, and 2.1 and 7.1 missed the level loudnorm's figures planned.
TEST_F(CliRun, EveryChannelLayoutReachesTheTargetAndKeepsItsLayout)
{
    const Layout mono{"mono", 1}, stereo{"stereo", 2}, twoOne{"2.1", 3}, quad{"quad", 4}, fiveSide{"5.0(side)", 5},
        fiveOneSide{"5.1(side)", 6}, fiveOne{"5.1", 6}, sixOne{"6.1", 7}, sevenOne{"7.1", 8}, unstated{"", 3};
    const QList<Layout> every{mono, stereo, twoOne, quad, fiveSide, fiveOneSide, fiveOne, sixOne, sevenOne};
    const struct {
        QString ext;
        QStringList encode;
        QList<Layout> layouts;
    } formats[] = {
        {"wav", {"-c:a", "pcm_s16le"}, every + QList<Layout>{unstated}},
        {"flac", {"-c:a", "flac"}, every},
        // AC-3 carries up to 5.1, with no back/side distinction.
        {"ac3", {"-c:a", "ac3", "-b:a", "448k"}, {mono, stereo, twoOne, quad, fiveSide, fiveOneSide}},
        // AAC in MP4 names the layouts of its channel configurations only;
        // the others read back as unknown.
        {"m4a", {"-c:a", "aac", "-b:a", "256k"}, {mono, stereo, twoOne, quad, fiveOne, sevenOne}},
    };
    // One run over every file: the tool's jobs keep both cores busy.
    const QString in = tmp.filePath("in"), out = tmp.filePath("out");
    QMap<QString, std::pair<QString, int>> inputs;  // by file name: ffprobe's layout and count
    for (const auto &format : formats) {
        QDir().mkpath(in + "/" + format.ext);
        for (const Layout &l : format.layouts) {
            const QString name = (l.name.isEmpty() ? QStringLiteral("unstated") : QString(l.name).remove('(').remove(')'))
                + "." + format.ext;
            const QString path = fixtures::makeChannels(in + "/" + format.ext, name, l.name, l.channels, 3.0, format.encode);
            ASSERT_FALSE(path.isEmpty()) << name.toStdString();
            inputs[name] = probeChannels(path);
            ASSERT_EQ(inputs[name].second, l.channels) << name.toStdString();
        }
    }
    const CliRunResult r = runCli({"--lufs", "-20", "-r", "-o", out, "--json", in});
    EXPECT_EQ(r.exitCode, 0) << r.err.toStdString();
    const QJsonArray results = r.json();
    EXPECT_EQ(results.size(), inputs.size()) << r.out.toStdString();
    for (const QJsonValue &v : results) {
        const QJsonObject o = v.toObject();
        const QString name = QFileInfo(o["input"].toString()).fileName();
        ASSERT_TRUE(inputs.contains(name)) << name.toStdString();
        EXPECT_EQ(o["result"].toString(), "ok") << name.toStdString() << ": " << o["reason"].toString().toStdString();
        const QString output = o["output"].toString();
        if (output.isEmpty())
            continue;
        const fixtures::Loudness l = fixtures::measureLoudness(output);
        ASSERT_TRUE(l.ok) << output.toStdString();
        EXPECT_NEAR(l.integrated, -20.0, 0.5) << name.toStdString();
        const auto [layout, channels] = probeChannels(output);
        EXPECT_EQ(channels, inputs[name].second) << name.toStdString();
        // A layout left unstated comes out as its count's default, the
        // layout every reader takes it for.
        EXPECT_EQ(layout, inputs[name].first.isEmpty() && channels == 3 ? "2.1" : inputs[name].first)
            << name.toStdString();
    }
}

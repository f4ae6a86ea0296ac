#include "tests/cli/CliTestUtil.h"
#include "tests/support/Fixtures.h"

#include "engine/VXProvenance.h"
#include "engine/VXVersion.h"

#include <QFileInfo>
#include <QJsonObject>
#include <QtEndian>

#include <gtest/gtest.h>

namespace {

using CliProvenance = CliFolderTest;

// The samples of a RIFF WAVE file set to zero, every other chunk (the tags
// among them) kept: a decode finds the file silent.
bool silenceWav(const QString &path)
{
    QByteArray bytes = fixtures::readFile(path);
    for (qsizetype at = 12; at + 8 <= bytes.size();) {
        const quint32 size = qFromLittleEndian<quint32>(bytes.constData() + at + 4);
        if (bytes.mid(at, 4) == "data" && at + 8 + qsizetype(size) <= bytes.size()) {
            std::fill(bytes.begin() + at + 8, bytes.begin() + at + 8 + size, '\0');
            return fixtures::writeFile(path, bytes);
        }
        at += 8 + size + (size & 1);
    }
    return false;
}

qsizetype keyCount(const QString &path) { return fixtures::readFile(path).count(kVXProvenanceKey); }

} // namespace

// A run records how each result was made, with the figures its report
// gives. The same settings again skip every result without decoding it (one
// has had its audio silenced: a decode would find it silent, not at the
// target); another target does them again, each with one record, the
// earlier run's replaced.
TEST_F(CliProvenance, ReRunsSkipWhatTheSameSettingsMadeAndRedoTheRest)
{
    const QStringList inputs = {
        fixtures::makeAudio(tmp.path(), "a.flac", 4, {"-c:a", "flac"}, -6),
        fixtures::makeAudio(tmp.path(), "b.mp3", 4, {"-c:a", "libmp3lame", "-b:a", "192k"}, 4),
        fixtures::makeAudio(tmp.path(), "c.m4a", 4, {"-c:a", "aac"}, -3),
        fixtures::makeAudio(tmp.path(), "d.wav", 4, {"-c:a", "pcm_s16le"}, -10),
    };
    ASSERT_FALSE(inputs.contains(QString()));
    const QStringList settings = {"--json", "--lufs", "-16", "--true-peak", "-1"};
    const CliRunResult first = runCli(settings + QStringList{"-o", tmp.filePath("out")} + inputs);
    ASSERT_EQ(first.exitCode, 0) << first.err.toStdString();
    const QJsonArray made = first.json();
    ASSERT_EQ(made.size(), inputs.size());
    QStringList outputs;
    QList<QByteArray> contents;
    for (const QJsonValue &v : made) {
        const QJsonObject o = v.toObject();
        outputs << o["output"].toString();
        SCOPED_TRACE(outputs.last().toStdString());
        const std::optional<VXProvenance> p = VXReadProvenance(outputs.last());
        ASSERT_TRUE(p);
        EXPECT_EQ(p->targetLufs, -16.0);
        EXPECT_EQ(p->ceilingDbtp, -1.0);
        EXPECT_EQ(p->kind, o["normalization"].toString());
        EXPECT_FALSE(p->limiter || p->dualMono || p->album);
        EXPECT_EQ(p->meterName(), "ebur128");
        EXPECT_EQ(p->version, kVXProgramVersion);
        EXPECT_NEAR(p->integrated, o["output_i"].toDouble(), 0.011);
        EXPECT_NEAR(p->truePeak, o["output_tp"].toDouble(), 0.011);
        EXPECT_NEAR(p->range, o["output_lra"].toDouble(), 0.011);
        EXPECT_EQ(keyCount(outputs.last()), 1);
    }
    ASSERT_TRUE(silenceWav(outputs[3]));
    for (const QString &out : outputs)
        contents << fixtures::readFile(out);

    const CliRunResult again = runCli(settings + QStringList{"--skip-within", "0.5", "--replace"} + outputs);
    ASSERT_EQ(again.exitCode, 0) << again.err.toStdString();
    const QJsonArray skipped = again.json();
    ASSERT_EQ(skipped.size(), outputs.size());
    for (int i = 0; i < outputs.size(); ++i) {
        SCOPED_TRACE(outputs[i].toStdString());
        const QJsonObject o = skipped[i].toObject();
        EXPECT_EQ(o["result"].toString(), "skipped");
        EXPECT_NEAR(o["input_i"].toDouble(), made[i].toObject()["output_i"].toDouble(), 0.011);
        EXPECT_NEAR(o["input_tp"].toDouble(), made[i].toObject()["output_tp"].toDouble(), 0.011);
        EXPECT_EQ(fixtures::readFile(outputs[i]), contents[i]);
    }

    const QStringList sounding = outputs.mid(0, 3);
    const CliRunResult other = runCli(QStringList{"--json", "--lufs", "-18", "--true-peak", "-1", "--skip-within", "0.5",
                                                  "--replace"} + sounding);
    ASSERT_EQ(other.exitCode, 0) << other.err.toStdString();
    const QJsonArray redone = other.json();
    ASSERT_EQ(redone.size(), sounding.size());
    for (int i = 0; i < sounding.size(); ++i) {
        SCOPED_TRACE(sounding[i].toStdString());
        EXPECT_EQ(redone[i].toObject()["result"].toString(), "ok");
        const std::optional<VXProvenance> p = VXReadProvenance(sounding[i]);
        ASSERT_TRUE(p);
        EXPECT_EQ(p->targetLufs, -18.0);
        EXPECT_EQ(keyCount(sounding[i]), 1);
    }
}

// Tags only, with a skip window: what the same meter tagged before is left
// as it is, and reported with the level its record gives.
TEST_F(CliProvenance, TagsOnlySkipsWhatItTaggedBefore)
{
    const QStringList inputs = {
        fixtures::makeAudio(tmp.path(), "a.flac", 3, {"-c:a", "flac"}, -6),
        fixtures::makeAudio(tmp.path(), "b.ogg", 3, {"-c:a", "libopus", "-b:a", "96k"}, 2),
    };
    ASSERT_FALSE(inputs.contains(QString()));
    const CliRunResult tagged = runCli(QStringList{"--json", "--tags-only"} + inputs);
    ASSERT_EQ(tagged.exitCode, 0) << tagged.err.toStdString();
    QList<QByteArray> contents;
    for (int i = 0; i < inputs.size(); ++i) {
        const std::optional<VXProvenance> p = VXReadProvenance(inputs[i]);
        ASSERT_TRUE(p) << inputs[i].toStdString();
        EXPECT_EQ(p->kind, "tags");
        // Opus's R128 gains lead to its own reference.
        EXPECT_EQ(p->targetLufs, i == 0 ? -18.0 : -23.0);
        EXPECT_NEAR(p->integrated, tagged.json()[i].toObject()["input_i"].toDouble(), 0.011);
        contents << fixtures::readFile(inputs[i]);
    }
    const CliRunResult again = runCli(QStringList{"--json", "--tags-only", "--skip-within", "0"} + inputs);
    ASSERT_EQ(again.exitCode, 0) << again.err.toStdString();
    for (int i = 0; i < inputs.size(); ++i) {
        const QJsonObject o = again.json()[i].toObject();
        EXPECT_EQ(o["result"].toString(), "skipped") << inputs[i].toStdString();
        EXPECT_EQ(o["input_i"].toDouble(), tagged.json()[i].toObject()["input_i"].toDouble());
        EXPECT_EQ(fixtures::readFile(inputs[i]), contents[i]);
    }
}

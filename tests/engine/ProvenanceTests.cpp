#include "EngineTestUtil.h"

#include "engine/VXLoudnessScale.h"
#include "engine/VXProvenance.h"
#include "engine/codec/VXLoudnessMeter.h"

#include <QFile>
#include <QTemporaryDir>
#include <functional>
#include <gtest/gtest.h>
#include <limits>

namespace {

VXJobSettings settingsAt(double lufs)
{
    VXJobSettings s;
    s.targetLoudness = *VXLoudnessScale::positionForLufs(lufs);
    s.truePeakCeiling = -1.0f;
    s.skipWithin = 0.5;
    return s;
}

VXProvenance madeAt(double lufs)
{
    VXProvenance p = VXProvenance::forJob(settingsAt(lufs), lufs, QStringLiteral("peak-capped"));
    p.integrated = lufs - 2.5;
    p.truePeak = -1.0;
    p.range = 7.25;
    return p;
}

// How often the key is in the file's bytes, as Latin-1 or as UTF-16 (ASF).
qsizetype keyCount(const QString &path)
{
    const QByteArray bytes = fixtures::readFile(path);
    const QString key = QString::fromLatin1(kVXProvenanceKey);
    const QByteArray utf16(reinterpret_cast<const char *>(key.utf16()), key.size() * 2);
    return bytes.count(kVXProvenanceKey) + bytes.count(utf16);
}

} // namespace

// The one line is read back as written, -inf (a silent result) included;
// what is not such a line is no record.
TEST(Provenance, TextReadsBackAndRefusesWhatIsNotARecord)
{
    VXProvenance p = madeAt(-16.0);
    p.integrated = -std::numeric_limits<double>::infinity();
    const QString text = p.format();
    EXPECT_TRUE(text.startsWith(QStringLiteral("target=-16.00;ceiling=-1.00;kind=peak-capped;limiter=off;")))
        << text.toStdString();
    const std::optional<VXProvenance> back = VXProvenance::parse(text + QStringLiteral(";future=1"));
    ASSERT_TRUE(back);
    EXPECT_EQ(back->targetLufs, -16.0);
    EXPECT_EQ(back->ceilingDbtp, -1.0);
    EXPECT_EQ(back->kind, p.kind);
    EXPECT_EQ(back->meter, VXMeterIdentity(false));
    EXPECT_EQ(back->version, p.version);
    EXPECT_TRUE(std::isinf(back->integrated) && back->integrated < 0);
    EXPECT_EQ(back->truePeak, -1.0);
    EXPECT_EQ(back->range, 7.25);
    for (const char *bad : {"", "hello", "target=-16;kind=linear", "target=x;kind=linear;meter=ebur128/1",
                            "target=-16;kind=louder;meter=ebur128/1", "kind=linear;meter=ebur128/1"})
        EXPECT_FALSE(VXProvenance::parse(QLatin1String(bad))) << bad;
}

// A file counts as made with the settings only when everything that shapes
// its audio is the same; the meter's version and the program's do not count.
TEST(Provenance, MatchesOnlyTheSettingsThatShapeTheAudio)
{
    const VXProvenance made = madeAt(-16.0);
    struct Case {
        const char *what;
        std::function<void(VXJobSettings &, VXProvenance &)> change;
        bool matches;
    } cases[] = {
        {"the same", [](VXJobSettings &, VXProvenance &) {}, true},
        {"another meter version", [](VXJobSettings &, VXProvenance &p) { p.meter = "ebur128/9.9.9-r9"; }, true},
        {"another program", [](VXJobSettings &, VXProvenance &p) { p.version = "99.0"; }, true},
        {"another target", [](VXJobSettings &s, VXProvenance &) { s = settingsAt(-16.1); s.skipWithin = 0.5; }, false},
        {"another ceiling", [](VXJobSettings &s, VXProvenance &) { s.truePeakCeiling = -2.0f; }, false},
        {"the limiter", [](VXJobSettings &s, VXProvenance &) { s.limitPeaks = true; }, false},
        {"dual mono", [](VXJobSettings &s, VXProvenance &) { s.dualMono = true; }, false},
        {"albums", [](VXJobSettings &s, VXProvenance &) { s.treatAsAlbums = true; }, false},
        {"loudnorm's meter", [](VXJobSettings &s, VXProvenance &) { s.measureWithLoudnorm = true; }, false},
        {"tags only, over audio", [](VXJobSettings &s, VXProvenance &) { s.tagsOnly = true; }, false},
        {"audio, over tags", [](VXJobSettings &, VXProvenance &p) { p.kind = kVXProvenanceTags; }, false},
        // Tags keep the audio: neither the target nor the ceiling counts,
        // and they are always measured by the reference meter.
        {"tags over tags", [](VXJobSettings &s, VXProvenance &p) {
             s = settingsAt(-23.0);
             s.tagsOnly = true;
             s.measureWithLoudnorm = true;
             p = VXProvenance::forJob(s, -18.0, QLatin1String(kVXProvenanceTags));
             s.truePeakCeiling = -5.0f;
         }, true},
    };
    for (const Case &c : cases) {
        VXJobSettings s = settingsAt(-16.0);
        VXProvenance p = made;
        c.change(s, p);
        EXPECT_EQ(p.matches(s), c.matches) << c.what;
    }
    // The default target is -23.9995 in single precision; its record says -24.00.
    VXJobSettings byDefault;
    const VXProvenance atDefault = VXProvenance::forJob(byDefault, VXLoudnessScale::lufsForPosition(byDefault.targetLoudness),
                                                        QStringLiteral("linear"));
    EXPECT_TRUE(VXProvenance::parse(atDefault.format())->matches(byDefault));
}

// Every container the program writes takes the record and gives it back; a
// second write replaces the first; the file still decodes. AC-3 has no tag:
// nothing is written and nothing read.
TEST(Provenance, EveryContainerCarriesOneRecord)
{
    QTemporaryDir dir;
    for (const fixtures::Format &format : fixtures::formats()) {
        SCOPED_TRACE(format.variant.toStdString());
        const QString path = fixtures::makeFormat(dir.path(), format.variant, 1.0);
        ASSERT_FALSE(path.isEmpty());
        EXPECT_FALSE(VXReadProvenance(path));
        const QByteArray before = fixtures::readFile(path);
        ASSERT_TRUE(VXWriteProvenance(path, madeAt(-14.0)));
        const VXProvenance second = madeAt(-16.0);
        ASSERT_TRUE(VXWriteProvenance(path, second));
        if (format.ext == QLatin1String("ac3")) {
            EXPECT_EQ(fixtures::readFile(path), before);
            EXPECT_FALSE(VXReadProvenance(path));
            continue;
        }
        const std::optional<VXProvenance> read = VXReadProvenance(path);
        ASSERT_TRUE(read);
        EXPECT_EQ(read->format(), second.format());
        EXPECT_EQ(keyCount(path), 1);
        QString errors;
        EXPECT_TRUE(fixtures::run(QStringLiteral("ffmpeg"), {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-i"),
                                  path, QStringLiteral("-f"), QStringLiteral("null"), QStringLiteral("-")}, &errors));
        EXPECT_TRUE(errors.trimmed().isEmpty()) << errors.toStdString();
    }
}

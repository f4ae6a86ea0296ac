// The measurement cache: a kept file is not decoded again and gives the
// figures it gave; a changed file is measured again; a damaged or unwritable
// database never fails a file; programs writing at once lose nothing; an
// album of kept tracks is the album measured.

#include "CacheTestData.h"
#include "EngineTestUtil.h"

#include "engine/VXMeasureCache.h"
#include "engine/codec/VXLoudnessMeter.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <optional>
#include <sys/stat.h>

using namespace enginetest;

namespace {

timespec modified(const QString &path)
{
    struct stat st {};
    ::stat(QFile::encodeName(path).constData(), &st);
    return st.st_mtim;
}

bool setModified(const QString &path, timespec when)
{
    const timespec times[2] = {when, when};
    return ::utimensat(AT_FDCWD, QFile::encodeName(path).constData(), times, 0) == 0;
}

// Settled: written long enough ago for its figures to be kept.
bool backdate(const QString &path, time_t seconds = 3600)
{
    timespec t = modified(path);
    t.tv_sec -= seconds;
    return setModified(path, t);
}

// The same length and stamp (so the same entry), and nothing a decoder can
// read: whatever still gives figures did not decode it.
bool spoil(const QString &path)
{
    const timespec stamp = modified(path);
    const qint64 size = QFileInfo(path).size();
    QByteArray junk;
    while (junk.size() < size)
        junk += "no audio here. ";
    junk.truncate(size);
    return fixtures::writeFile(path, junk) && setModified(path, stamp);
}

void expectSame(const VXLoudness &a, const VXLoudness &b)
{
    EXPECT_EQ(a.integrated, b.integrated);
    EXPECT_EQ(a.truePeak, b.truePeak);
    EXPECT_EQ(a.range, b.range);
    EXPECT_EQ(a.threshold, b.threshold);
    EXPECT_EQ(a.maxShortTerm, b.maxShortTerm);
    EXPECT_EQ(a.maxMomentary, b.maxMomentary);
    EXPECT_EQ(a.steps, b.steps);
    EXPECT_EQ(a.shortTerm, b.shortTerm);
}

class CacheTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_dir.isValid());
        m_db = QDir(m_dir.path()).filePath(QStringLiteral("cache/measurements.sqlite"));
        m_use.emplace(m_db);
    }
    void TearDown() override { m_use.reset(); }

    QString settledWav(const QString &name, double seconds, double gainDb = 0.0)
    {
        const QString path = makeWav(m_dir.path(), name, seconds, gainDb);
        return !path.isEmpty() && backdate(path) ? path : QString();
    }

    QTemporaryDir m_dir;
    QString m_db;
    std::optional<cachetest::UseCache> m_use;
};

} // namespace

TEST_F(CacheTest, KeptFiguresComeBackWithoutDecoding)
{
    const QString wav = settledWav(QStringLiteral("a.wav"), 4.0);
    ASSERT_FALSE(wav.isEmpty());
    const int flags = VXMeasureTruePeak | VXMeasureCurve;
    const VXResult<VXMeasured> first = VXMeasureWithCache(wav, flags);
    ASSERT_TRUE(first.ok()) << first.reason().toStdString();
    EXPECT_FALSE(first->cached);
    ASSERT_EQ(first->loudness.steps.size(), 40u);

    ASSERT_TRUE(spoil(wav));
    ASSERT_FALSE(VXMeasureFile(wav, 0).ok());
    const VXResult<VXMeasured> again = VXMeasureWithCache(wav, flags);
    ASSERT_TRUE(again.ok()) << again.reason().toStdString();
    EXPECT_TRUE(again->cached);
    expectSame(again->loudness, first->loudness);

    // Without the curve: the figures and maxima, and no blob read.
    const VXResult<VXMeasured> plain = VXMeasureWithCache(wav, VXMeasureTruePeak);
    ASSERT_TRUE(plain.ok());
    EXPECT_TRUE(plain->cached && plain->loudness.steps.empty() && plain->loudness.shortTerm.empty());
    EXPECT_EQ(plain->loudness.maxMomentary, first->loudness.maxMomentary);
    // What an import looks up.
    const std::optional<VXLoudness> looked = VXCachedLoudness(wav, VXMeasureCurve);
    ASSERT_TRUE(looked);
    expectSame(*looked, first->loudness);

    // Off: the file is decoded, and fails.
    VXMeasureCache::configure({VXMeasureCache::Location::Off, QString()});
    EXPECT_FALSE(VXMeasureWithCache(wav, flags).ok());
    EXPECT_FALSE(VXCachedLoudness(wav, 0));
}

TEST_F(CacheTest, AChangedFileOrAnotherMeterSettingIsMeasuredAgain)
{
    const QString wav = settledWav(QStringLiteral("b.wav"), 2.0);
    ASSERT_FALSE(wav.isEmpty());
    const VXResult<VXMeasured> first = VXMeasureWithCache(wav, VXMeasureTruePeak);
    ASSERT_TRUE(first.ok());

    // Rewritten in place to the same size, its stamp another (old) one.
    const qint64 size = QFileInfo(wav).size();
    const QString quieter = makeWav(m_dir.path(), QStringLiteral("quieter.wav"), 2.0, -6.0);
    ASSERT_FALSE(quieter.isEmpty());
    ASSERT_TRUE(fixtures::writeFile(wav, fixtures::readFile(quieter)));
    ASSERT_EQ(QFileInfo(wav).size(), size);
    ASSERT_TRUE(backdate(wav, 7200));
    const VXResult<VXMeasured> changed = VXMeasureWithCache(wav, VXMeasureTruePeak);
    ASSERT_TRUE(changed.ok());
    EXPECT_FALSE(changed->cached);
    EXPECT_NEAR(changed->loudness.integrated - first->loudness.integrated, -6.0, 0.1);

    // Mono counted twice is an entry of its own.
    const VXResult<VXMeasured> dual = VXMeasureWithCache(wav, VXMeasureTruePeak | VXMeasureDualMono);
    ASSERT_TRUE(dual.ok());
    EXPECT_FALSE(dual->cached);
    EXPECT_TRUE(VXMeasureWithCache(wav, VXMeasureTruePeak | VXMeasureDualMono)->cached);

    // A file written just now may be written again within its clock's tick:
    // it is measured, not kept.
    const QString fresh = makeWav(m_dir.path(), QStringLiteral("fresh.wav"), 1.0);
    ASSERT_TRUE(VXMeasureWithCache(fresh, 0).ok());
    EXPECT_FALSE(VXMeasureWithCache(fresh, 0)->cached);
}

TEST_F(CacheTest, ADamagedOrUnwritableDatabaseNeverFailsAFile)
{
    const QString wav = settledWav(QStringLiteral("c.wav"), 1.0);
    ASSERT_FALSE(wav.isEmpty());
    ASSERT_TRUE(QDir().mkpath(QFileInfo(m_db).path()));
    ASSERT_TRUE(fixtures::writeFile(m_db, QByteArray(8192, 'x')));
    {
        LogCapture log;
        ASSERT_TRUE(VXMeasureWithCache(wav, 0).ok());
        const QStringList lines = log.lines();
        ASSERT_EQ(lines.size(), 1) << lines.join(QLatin1Char('\n')).toStdString();
        EXPECT_TRUE(lines[0].contains(QStringLiteral("set aside")));
        const QStringList aside = QDir(QFileInfo(m_db).path())
                                      .entryList({QStringLiteral("measurements.sqlite.corrupt-*")}, QDir::Files);
        ASSERT_EQ(aside.size(), 1);
        EXPECT_EQ(fixtures::readFile(QFileInfo(m_db).dir().filePath(aside[0])), QByteArray(8192, 'x'));
        // The new one keeps what is measured from then on.
        EXPECT_TRUE(VXMeasureWithCache(wav, 0)->cached);
    }

    // A database that cannot be opened for writing (a folder in its place:
    // unwritable even for root).
    const QString blocked = QDir(m_dir.path()).filePath(QStringLiteral("blocked"));
    ASSERT_TRUE(QDir().mkpath(blocked + QStringLiteral("/measurements.sqlite")));
    VXMeasureCache::configure({VXMeasureCache::Location::File, blocked});
    LogCapture log;
    for (int i = 0; i < 2; ++i) {
        const VXResult<VXMeasured> m = VXMeasureWithCache(wav, 0);
        EXPECT_TRUE(m.ok() && !m->cached);
    }
    EXPECT_EQ(log.lines().filter(QStringLiteral("cannot be used")).size(), 1) << log.lines().join('\n').toStdString();
    EXPECT_TRUE(VXMeasureCache::path().isEmpty());
}

TEST_F(CacheTest, ProgramsWritingAtOnceLoseNothing)
{
    // Two programs, two threads each, on a database neither has made yet.
    constexpr int kEach = 300;
    QProcess a, b;
    for (auto [process, tag] : {std::pair{&a, 1}, std::pair{&b, 2}})
        process->start(QStringLiteral(ENGINE_TEST_HELPER),
                       {QStringLiteral("cache-store"), m_db, QString::number(tag), QString::number(kEach)});
    for (QProcess *p : {&a, &b}) {
        ASSERT_TRUE(p->waitForFinished(300000));
        EXPECT_EQ(p->exitStatus(), QProcess::NormalExit);
        EXPECT_EQ(p->exitCode(), 0) << p->readAllStandardError().toStdString();
    }
    for (const qint64 tag : {1, 2})
        for (int i = 0; i < kEach; ++i) {
            const std::optional<vx::Measurement> m = VXMeasureCache::find(cachetest::key(tag, i), true);
            ASSERT_TRUE(m) << tag << " " << i;
            EXPECT_EQ(m->loudness.steps, cachetest::figures(i).loudness.steps);
        }
}

TEST_F(CacheTest, AnAlbumOfKeptTracksIsTheAlbumMeasured)
{
    // A quiet track and a loud one: the album gate and range depend on both.
    const QStringList tracks{settledWav(QStringLiteral("1.wav"), 6.0, -12.0), settledWav(QStringLiteral("2.wav"), 9.0),
                             settledWav(QStringLiteral("3.wav"), 4.0, -4.0)};
    ASSERT_FALSE(tracks.contains(QString()));
    const VXResult<VXAlbumLoudness> measured = VXMeasureAlbumWithCache(tracks, 0, nullptr);
    ASSERT_TRUE(measured.ok()) << measured.reason().toStdString();
    for (const QString &track : tracks)
        ASSERT_TRUE(spoil(track));
    const VXResult<VXAlbumLoudness> kept = VXMeasureAlbumWithCache(tracks, 0, nullptr);
    ASSERT_TRUE(kept.ok()) << kept.reason().toStdString();
    EXPECT_EQ(kept->album.integrated, measured->album.integrated);
    EXPECT_EQ(kept->album.range, measured->album.range);
    EXPECT_EQ(kept->album.truePeak, measured->album.truePeak);
    ASSERT_EQ(kept->tracks.size(), 3u);
    for (size_t i = 0; i < 3; ++i)
        EXPECT_EQ(kept->tracks[i].integrated, measured->tracks[i].integrated);
    // Between the loud track and the quiet one, nearer the loud.
    EXPECT_GT(measured->album.integrated, measured->tracks[0].integrated + 6.0);
    EXPECT_LT(measured->album.integrated, measured->tracks[1].integrated);
}

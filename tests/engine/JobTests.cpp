#include "CacheTestData.h"
#include "EngineTestUtil.h"

#include "engine/VXAudioGain.h"
#include "engine/VXMainThread.h"
#include "engine/VXMeasureCache.h"
#include "tests/support/FileWatch.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QThread>
#include <QThreadPool>
#include <gtest/gtest.h>

using namespace enginetest;

namespace {

using Report = std::pair<qint32, qint64>;

// Runs one job and records its reports; every report must arrive on the
// main thread, after state and retCode were set.
struct JobRun {
    explicit JobRun(VXAudioGainPtr gain) : item(std::move(gain)) {}
    VXAudioGainPtr item;
    QList<Report> reports;
    bool wrongThreadOrState = false;
    std::function<void(JobRun &)> onReport;

    void start()
    {
        item->gainWithBlock([this](qint32 state, qint64 retCode) {
            wrongThreadOrState |= QThread::currentThread() != qApp->thread() || item->state() != state
                                  || item->retCode() != retCode;
            reports.append({state, retCode});
            if (onReport)
                onReport(*this);
        });
    }
    bool ended() const { return !reports.isEmpty() && reports.last().first == 3; }
    bool waitEnd() { return waitFor([this] { return ended(); }); }
    qint64 maxProgress() const
    {
        qint64 most = 0;
        for (const Report &r : reports)
            most = r.first == 2 ? std::max(most, r.second) : most;
        return most;
    }
};

class JobTest : public ::testing::Test {
protected:
    void TearDown() override
    {
        VXAudioGain::setCapturedLogHookForTesting({});
        EXPECT_TRUE(VXAudioGain::jobPool()->waitForDone(120000));
    }
    VXAudioGainPtr item(const QString &path)
    {
        VXError error;
        auto it = VXAudioGain::initWithFile(path, m_out.path(), &error);
        EXPECT_TRUE(it) << qPrintable(error.description);
        return it;
    }
    QStringList outputs() const { return QDir(m_out.path()).entryList(QDir::Files | QDir::Hidden); }

    QTemporaryDir m_in, m_out;
};

} // namespace

// Names at the file system's 255-byte limit are valid names: staging and
// temporary names made from them must still fit, in both modes.
TEST_F(JobTest, TwoPassesReachTheTargetInBothModes)
{
    const QString longName = QString(120, QChar(0xe9)) + QStringLiteral("abcdefghi.wav");  // 240 + 13 bytes
    ASSERT_EQ(QFile::encodeName(longName).size(), 253);
    const QString kept = makeWav(m_in.path(), longName, 6.0);
    const QString replaced = makeWav(m_in.path(), QString(120, QChar(0xe9)) + QStringLiteral("jklmnopqr.wav"), 3.0, 6.0);
    auto toFolder = item(kept), inPlace = item(replaced);
    ASSERT_TRUE(toFolder && inPlace);
    inPlace->setReplaceOriginalFile(true);
    inPlace->setTargetLoudness(50.0f);  // -37.5 LUFS, far from the input
    const QByteArray original = fixtures::readFile(kept);

    LogCapture log;
    JobRun a(toFolder), b(inPlace);
    a.start();
    b.start();
    ASSERT_TRUE(a.waitEnd() && b.waitEnd());
    EXPECT_TRUE(log.lines().isEmpty()) << qPrintable(log.lines().join('\n'));
    for (const JobRun *run : {&a, &b}) {
        EXPECT_FALSE(run->wrongThreadOrState);
        EXPECT_EQ(run->reports.first(), Report(1, 0));
        EXPECT_EQ(run->reports.last(), Report(3, 0)) << run->item->gainResult().reason.toStdString();
        // Progress never goes back and covers both halves: pass 1, then pass 2.
        qint64 last = 0;
        for (int i = 1; i + 1 < run->reports.size(); ++i) {
            EXPECT_EQ(run->reports[i].first, 2);
            EXPECT_GE(run->reports[i].second, last);
            last = run->reports[i].second;
        }
        EXPECT_LT(run->reports[1].second, 50);
        EXPECT_GT(last, 50);
        EXPECT_FALSE(QFile::exists(run->item->tempOutFile()));
    }

    // Folder mode: the input is untouched, the result is at the target.
    EXPECT_EQ(outputs(), QStringList{longName});
    EXPECT_EQ(fixtures::readFile(kept), original);
    const fixtures::Loudness out = fixtures::measureLoudness(toFolder->outPathFile());
    ASSERT_TRUE(out.ok);
    EXPECT_NEAR(out.integrated, toFolder->loudnormValue(), 1.0);
    EXPECT_LT(out.truePeak, -1.0);
    // Replace mode: the result sits at the input's path, nothing else left.
    EXPECT_EQ(QDir(m_in.path()).entryList(QDir::Files | QDir::Hidden).size(), 2);
    const fixtures::Loudness in = fixtures::measureLoudness(replaced);
    ASSERT_TRUE(in.ok);
    EXPECT_NEAR(in.integrated, -37.5, 1.0);
}

TEST_F(JobTest, UnusableMeasurementFallsBackToThePassOneResult)
{
    auto gain = item(makeWav(m_in.path(), QStringLiteral("fb.wav"), 2.0));
    ASSERT_TRUE(gain);
    const struct {
        QByteArray log;
        const char *reason;  // empty: the parser's own words
    } cases[] = {
        {"no record here at all", "Unknown"},
        {"} before { and no end", "Unknown"},
        {"noise { this is not json } noise", ""},
        {"{\"input_tp\" : \"-3.0\", \"input_lra\" : \"5.0\"}", "no input_i"},
        // A record among other text is found, so no fallback.
        {"before {\"input_i\" : \"-15.0\", \"input_tp\" : \"-3.0\", \"input_lra\" : \"5.0\", "
         "\"input_thresh\" : \"-25.0\", \"target_offset\" : \"0.1\"} after }",
         nullptr},
    };
    // The reference meter's pass 1 writes nothing, so its fallback runs
    // loudnorm's single pass then; loudnorm's own pass 1 has written it.
    for (const bool loudnorm : {false, true}) {
        {
            VXJobSettings settings = gain->jobSettings();
            settings.measureWithLoudnorm = loudnorm;
            gain->setJobSettings(settings);
        }
        for (const auto &c : cases) {
            VXAudioGain::setCapturedLogHookForTesting([&](const QByteArray &) { return c.log; });
            LogCapture log;
            gain->setTargetLoudness(gain->targetLoudness());  // idle again
            JobRun run(gain);
            run.start();
            ASSERT_TRUE(run.waitEnd());
            EXPECT_EQ(run.reports.last(), Report(3, 0)) << c.log.constData() << " " << loudnorm;
            const QStringList warnings = log.lines().filter(QStringLiteral("Waring: Can not using two pass gain("));
            if (!c.reason) {
                EXPECT_TRUE(warnings.isEmpty());
                EXPECT_GT(run.maxProgress(), 50);
                continue;
            }
            ASSERT_EQ(warnings.size(), 1) << c.log.constData();
            if (*c.reason)
                EXPECT_EQ(warnings[0], QStringLiteral("Waring: Can not using two pass gain(%1).").arg(QLatin1String(c.reason)));
            else
                EXPECT_FALSE(warnings[0].contains(QLatin1String("(Unknown)"))) << qPrintable(warnings[0]);
            EXPECT_EQ(gain->gainResult().normalization, "one-pass");
            const fixtures::Loudness out = fixtures::measureLoudness(gain->outPathFile());
            EXPECT_TRUE(out.ok && std::fabs(out.integrated - gain->loudnormValue()) < 1.0) << gain->outPathFile().toStdString();
            if (loudnorm)
                EXPECT_LE(run.maxProgress(), 50);  // only pass 1 ran
            else
                EXPECT_GT(run.maxProgress(), 50);  // the single pass ran after it
        }
    }
    EXPECT_EQ(outputs().size(), 2 * int(std::size(cases)));  // each under its own free name
}

TEST_F(JobTest, FailuresEndWithMinusOne)
{
    // The input is gone by the time the job starts: no transcoding.
    const QString wav = makeWav(m_in.path(), QStringLiteral("gone.wav"), 0.5);
    auto gain = item(wav);
    ASSERT_TRUE(gain && QFile::remove(wav));
    JobRun run(gain);
    run.start();
    ASSERT_TRUE(run.waitEnd());
    EXPECT_EQ(run.reports, (QList<Report>{{1, 0}, {3, -1}}));

    // The output folder vanished while the job ran.
    auto late = item(makeWav(m_in.path(), QStringLiteral("late.wav"), 0.5));
    ASSERT_TRUE(late);
    late->setOutFolder(QDir(m_out.path()).filePath(QStringLiteral("removed")));
    LogCapture log;
    JobRun run2(late);
    run2.start();
    ASSERT_TRUE(run2.waitEnd());
    EXPECT_EQ(run2.reports.last(), Report(3, -1));
    EXPECT_EQ(log.lines().filter(QStringLiteral("Failed to move file to dest path(")).size(), 1);
    EXPECT_TRUE(QFile::exists(late->tempOutFile()));  // kept until the cache is cleaned
}

TEST_F(JobTest, CancelInEitherPassPlacesNothing)
{
    const QString wav = makeWav(m_in.path(), QStringLiteral("long.wav"), 30.0);
    auto gain = item(wav);
    ASSERT_TRUE(gain);
    const QByteArray original = fixtures::readFile(wav);

    // Cancelled from inside a report, so the codec is held at that point:
    // first in pass 1, then (restarted) once pass 2 is under way, then
    // before any pass has started.
    const std::function<bool(const Report &)> when[] = {
        [](const Report &r) { return r.first == 2; },
        [](const Report &r) { return r.first == 2 && r.second > 50; },
        [](const Report &r) { return r.first == 1; },
    };
    QSet<QString> temps;
    for (const auto &cancelAt : when) {
        JobRun run(gain);
        run.onReport = [&](JobRun &r) {
            if (cancelAt(r.reports.last()))
                r.item->cancelGain();
        };
        run.start();
        ASSERT_TRUE(run.waitEnd());
        EXPECT_EQ(run.reports.last(), Report(3, -2));
        EXPECT_TRUE(gain->stateImage().isNull());
        temps.insert(gain->tempOutFile());
    }
    EXPECT_EQ(temps.size(), 2);  // each restart picks a new name (the last never got one)
    EXPECT_TRUE(outputs().isEmpty());
    EXPECT_EQ(fixtures::readFile(wav), original);
}

// Jobs that only measure before they decide (tags only, and every job's
// first pass with the reference meter) stop at once too: their measurement
// is in a worker child, which the cancel kills.
TEST_F(JobTest, CancelStopsAMeasuringJobAtOnce)
{
    ASSERT_FALSE(longInput().isEmpty());
    for (const bool tagsOnly : {true, false}) {
        auto gain = item(longInput());
        ASSERT_TRUE(gain);
        {
            VXJobSettings settings = gain->jobSettings();
            settings.tagsOnly = tagsOnly;
            gain->setJobSettings(settings);
        }
        fixtures::FileWatch opened(longInput(), fixtures::FileWatch::Use::Open);  // after the item's probe
        JobRun run(gain);
        run.start();
        ASSERT_TRUE(opened.wait()) << "tags only: " << tagsOnly;
        gain->cancelGain();
        // Far more than a kill takes, far less than the measurement would.
        ASSERT_TRUE(waitFor([&] { return run.ended(); }, 3000)) << "tags only: " << tagsOnly;
        EXPECT_EQ(run.reports.last(), Report(3, -2));
        EXPECT_TRUE(gain->gainResult().reason.isEmpty()) << gain->gainResult().reason.toStdString();
    }
    EXPECT_TRUE(outputs().isEmpty());
}

// A file already at its level is left alone, and its row says so with the
// level found: the file's own, or in album mode the album's, which decided.
TEST_F(JobTest, SkippedFileSaysSoWithTheLevelFound)
{
    const QString path = makeWav(m_in.path(), QStringLiteral("done.wav"), 4.0);
    const fixtures::Loudness in = fixtures::measureLoudness(path);
    ASSERT_TRUE(in.ok);
    const QByteArray original = fixtures::readFile(path);
    VXLoudness track, album;
    track.integrated = -30.0;
    track.truePeak = -12.0;
    album.integrated = -14.2;
    album.truePeak = -1.5;
    for (const bool inAlbum : {false, true}) {
        auto gain = item(path);
        ASSERT_TRUE(gain);
        gain->setTargetLoudness(float(((inAlbum ? album.integrated : in.integrated) + 0.3 + 70.0) * 100.0 / 65.0));
        {
            VXJobSettings settings = gain->jobSettings();
            settings.skipWithin = 1.5;
            gain->setJobSettings(settings);
        }
        if (inAlbum)
            gain->setAlbumMember(VXAlbumMember{QStringLiteral("Live"), track, album});
        JobRun run(gain);
        run.start();
        ASSERT_TRUE(run.waitEnd());
        ASSERT_EQ(run.reports.last(), Report(3, 0)) << gain->gainResult().reason.toStdString();
        EXPECT_TRUE(gain->gainResult().skipped);
        const double level = inAlbum ? album.integrated : gain->measurement().value("input_i").toDouble();
        const QStringList parts = gain->outcomeText().split(QStringLiteral(" \u00b7 "));
        ASSERT_GE(parts.size(), 2) << gain->outcomeText().toStdString();
        EXPECT_EQ(parts[0], QStringLiteral("skipped"));
        EXPECT_TRUE(parts[1].startsWith(QChar(0x2212)) && parts[1].endsWith(QStringLiteral(" LUFS")))
            << parts[1].toStdString();
        EXPECT_NEAR(QString(parts[1]).replace(QChar(0x2212), QLatin1Char('-')).chopped(5).toDouble(), level, 0.051);
        EXPECT_EQ(parts.mid(2), inAlbum ? QStringList{QStringLiteral("album \u201cLive\u201d")} : QStringList());
    }
    EXPECT_TRUE(outputs().isEmpty());
    EXPECT_EQ(fixtures::readFile(path), original);
}

TEST_F(JobTest, WithoutCallbackTheStateStillChangesOnTheMainThread)
{
    auto gain = item(makeWav(m_in.path(), QStringLiteral("quiet.wav"), 1.0));
    ASSERT_TRUE(gain);
    bool offMain = false;
    QObject::connect(gain.get(), &VXAudioGain::stateChanged, gain.get(),
                     [&] { offMain |= QThread::currentThread() != qApp->thread(); }, Qt::DirectConnection);
    gain->gainWithBlock({});
    EXPECT_EQ(gain->state(), 1);
    ASSERT_TRUE(waitFor([&] { return gain->state() == 3; }));
    EXPECT_EQ(gain->retCode(), 0);
    EXPECT_FALSE(offMain);
}

TEST_F(JobTest, ShutdownReleasesRunningJobsPromptly)
{
    auto gain = item(makeWav(m_in.path(), QStringLiteral("long.wav"), 30.0));
    ASSERT_TRUE(gain);
    JobRun run(gain);
    run.start();
    ASSERT_TRUE(waitFor([&] { return run.reports.size() >= 2; }));
    // Not processing events from here on: the job's next report is left
    // waiting for the main thread, which shutdown must release.
    EXPECT_TRUE(VXAudioGain::cancelAllJobsAndWait(20000));
    VXMainThread::resume();
    EXPECT_FALSE(run.ended());
    EXPECT_TRUE(outputs().isEmpty());
}

namespace {

// Synthetic material where the gain's kind is known in advance.
QString makeEval(const QString &dir, const QString &name, const QString &expr, double seconds, int rate = 48000)
{
    const QString path = QDir(dir).filePath(name);
    const bool ok = fixtures::run(QStringLiteral("ffmpeg"),
                                  {"-v", "error", "-nostdin", "-y", "-f", "lavfi", "-i",
                                   QStringLiteral("aevalsrc='%1':s=%2:d=%3").arg(expr).arg(rate).arg(seconds),
                                   "-c:a", "pcm_s24le", path});
    return ok ? path : QString();
}

} // namespace

// Loud and quiet halves (range ~20 LU) must keep their range; a quiet file
// with sharp clicks stops where the clicks meet the ceiling, or with a
// limiter reaches the target; a clip shorter than loudnorm's 3 s window
// still lands on the target, as does noise that a lossy encoder thins out.
// What the item reports agrees with an
// independent meter.
TEST_F(JobTest, GainIsLinearPeakCappedOrLimitedAndReportedTruly)
{
    const QString tone = QStringLiteral("sin(2*PI*330*t)+0.5*sin(2*PI*1250*t)");
    const QString wide = makeEval(m_in.path(), "wide.wav", QStringLiteral("0.3*(%1)*if(lt(mod(t,8),4),1,0.1)").arg(tone), 16);
    const QString peaky = makeEval(m_in.path(), "peaky.wav",
                                   QStringLiteral("0.02*(%1)+if(lt(mod(t,1),0.002),0.9*sin(2*PI*900*t),0)").arg(tone), 12);
    const QString clip = makeEval(m_in.path(), "clip.wav", QStringLiteral("0.2*(%1)*sin(2*PI*3*t)").arg(tone), 1.4);
    // Loud white noise loses some of its energy in a 128 kb/s MP3 encoder.
    const QString noise = QDir(m_in.path()).filePath(QStringLiteral("noise.mp3"));
    ASSERT_TRUE(fixtures::run(QStringLiteral("ffmpeg"), {"-v", "error", "-nostdin", "-y", "-f", "lavfi", "-i",
                              "anoisesrc=color=white:amplitude=0.01:d=10", "-ac", "2", "-b:a", "128k", noise}));
    ASSERT_FALSE(wide.isEmpty() || peaky.isEmpty() || clip.isEmpty());
    const fixtures::Loudness wideIn = fixtures::measureLoudness(wide);
    ASSERT_TRUE(wideIn.ok && wideIn.range > 10.0);

    struct Case {
        QString path;
        float lufs;
        bool limit;
        QString kind;
    };
    const QList<Case> cases = {
        {wide, -16, false, "linear"},     {wide, -14, false, "linear"},  {peaky, -16, false, "peak-capped"},
        {peaky, -14, false, "peak-capped"}, {peaky, -14, true, "limited"}, {clip, -14, false, "linear"},
        {noise, -24, false, "linear"},
    };
    std::vector<std::unique_ptr<JobRun>> runs;
    for (const Case &c : cases) {
        auto gain = item(c.path);
        ASSERT_TRUE(gain);
        gain->setTargetLoudness((c.lufs + 70.0f) * 100.0f / 65.0f);
        {
            VXJobSettings settings = gain->jobSettings();
            settings.limitPeaks = c.limit;
            gain->setJobSettings(settings);
        }
        runs.push_back(std::make_unique<JobRun>(gain));
        runs.back()->start();
    }
    for (size_t i = 0; i < runs.size(); ++i) {
        const Case &c = cases[qsizetype(i)];
        const std::string name = QFileInfo(c.path).fileName().toStdString() + " at " + std::to_string(c.lufs);
        ASSERT_TRUE(runs[i]->waitEnd()) << name;
        const VXAudioGainPtr &it = runs[i]->item;
        const VXGainResult r = it->gainResult();
        ASSERT_EQ(runs[i]->reports.last(), Report(3, 0)) << name << ": " << r.reason.toStdString();
        EXPECT_EQ(r.normalization, c.kind) << name;
        const fixtures::Loudness out = fixtures::measureLoudness(it->outPathFile());
        ASSERT_TRUE(out.ok) << name;
        EXPECT_NEAR(r.outputI, out.integrated, 0.2) << name;
        EXPECT_TRUE(it->outcomeText().contains(c.kind)) << name;
        if (c.kind == "peak-capped") {
            EXPECT_NEAR(out.truePeak, -2.0, 0.5) << name;
            EXPECT_LT(out.integrated, c.lufs - 1.0) << name;
        } else {
            EXPECT_NEAR(out.integrated, c.lufs, 0.5) << name;
            EXPECT_LE(out.truePeak, -1.5) << name;
        }
        if (c.path == wide) {
            EXPECT_NEAR(out.range, wideIn.range, 1.0) << name;
        }
    }
}

// A result that misses its level is not placed, and says why.
TEST_F(JobTest, MissedTargetFailsWithItsReasonAndPlacesNothing)
{
    auto gain = item(makeWav(m_in.path(), QStringLiteral("m.wav"), 4.0));
    ASSERT_TRUE(gain);
    // The record claims the file is 6 LU louder than it is.
    VXAudioGain::setCapturedLogHookForTesting([](const QByteArray &log) {
        const QJsonObject record = QJsonDocument::fromJson(log.mid(log.indexOf('{'), log.indexOf('}') - log.indexOf('{') + 1)).object();
        QJsonObject changed = record;
        changed["input_i"] = QString::number(record["input_i"].toString().toDouble() + 6.0, 'f', 2);
        return QJsonDocument(changed).toJson();
    });
    JobRun run(gain);
    run.start();
    ASSERT_TRUE(run.waitEnd());
    EXPECT_EQ(run.reports.last(), Report(3, -1));
    EXPECT_TRUE(gain->gainResult().reason.startsWith("missed the target: reached ")) << gain->gainResult().reason.toStdString();
    EXPECT_EQ(gain->outcomeText(), gain->gainResult().reason);
    EXPECT_TRUE(outputs().isEmpty());
}

// A file whose decoding crashes the codec fails alone, with a reason; the
// jobs beside it and this process carry on.
TEST_F(JobTest, CrashInTheCodecFailsThatFileAlone)
{
    auto good = item(makeWav(m_in.path(), QStringLiteral("good.wav"), 3.0));
    auto bad = item(makeWav(m_in.path(), QStringLiteral("crasher.wav"), 3.0));
    ASSERT_TRUE(good && bad);
    qputenv("EVENLOUD_WORKER_ABORT_ON", "crasher.wav");
    JobRun a(good), b(bad);
    a.start();
    b.start();
    const bool ended = a.waitEnd() && b.waitEnd();
    qunsetenv("EVENLOUD_WORKER_ABORT_ON");
    ASSERT_TRUE(ended);
    EXPECT_EQ(a.reports.last(), Report(3, 0));
    EXPECT_EQ(b.reports.last(), Report(3, -1));
    EXPECT_TRUE(bad->gainResult().reason.startsWith("the decoder crashed on this file"))
        << bad->gainResult().reason.toStdString();
    EXPECT_EQ(outputs(), QStringList{QStringLiteral("good.wav")});
}

// A file measured before needs no first pass: progress goes straight to
// half way, and the record, the gain and the result are those of a job
// that measured it.
TEST_F(JobTest, AFileMeasuredBeforeSkipsPassOne)
{
    std::optional<cachetest::UseCache> cache(std::in_place, QDir(m_in.path()).filePath(QStringLiteral("db")));
    const QString wav = makeWav(m_in.path(), QStringLiteral("kept.wav"), 3.0, -6.0);
    QFile settled(wav);  // an hour old: its figures are kept
    ASSERT_TRUE(settled.open(QIODevice::ReadOnly)
                && settled.setFileTime(QDateTime::currentDateTime().addSecs(-3600), QFileDevice::FileModificationTime));
    settled.close();
    QList<QVariantMap> records;
    QList<VXGainResult> results;
    QList<QList<Report>> reports;
    for (int i = 0; i < 2; ++i) {
        auto gain = item(wav);
        ASSERT_TRUE(gain);
        JobRun run(gain);
        run.start();
        ASSERT_TRUE(run.waitEnd());
        ASSERT_EQ(run.reports.last(), Report(3, 0)) << gain->gainResult().reason.toStdString();
        records << gain->measurement();
        results << gain->gainResult();
        reports << run.reports;
    }
    cache.reset();
    auto firstHalf = [](const QList<Report> &r) {
        return std::count_if(r.begin(), r.end(), [](const Report &x) { return x.first == 2 && x.second < 50; });
    };
    EXPECT_GT(firstHalf(reports[0]), 0);
    EXPECT_EQ(firstHalf(reports[1]), 0);
    EXPECT_TRUE(reports[1].contains(Report(2, 50)));
    EXPECT_EQ(records[1], records[0]);
    EXPECT_EQ(results[1].gainDb, results[0].gainDb);
    EXPECT_EQ(results[1].normalization, results[0].normalization);
    EXPECT_EQ(outputs().size(), 2);
}

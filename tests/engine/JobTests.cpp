#include "EngineTestUtil.h"

#include "engine/VXAudioGain.h"
#include "engine/VXMainThread.h"

#include <QDir>
#include <QFile>
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
    bool offMainThread = false;
    bool stateMismatch = false;
    std::function<void(JobRun &)> onReport;

    void start()
    {
        item->gainWithBlock([this](qint32 state, qint64 retCode) {
            offMainThread |= QThread::currentThread() != qApp->thread();
            stateMismatch |= item->state() != state || item->retCode() != retCode;
            reports.append({state, retCode});
            if (onReport)
                onReport(*this);
        });
    }
    bool ended() const { return !reports.isEmpty() && reports.last().first == 3; }
    bool waitEnd() { return waitFor([this] { return ended(); }); }
};

class JobTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_in.isValid() && m_out.isValid());
        VXAudioGain::setCapturedLogHookForTesting({});
    }
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

// Checks the shape of a successful job's reports: (1,0), progress that
// never goes back, and the end.
void expectProgressShape(const QList<Report> &reports)
{
    ASSERT_GE(reports.size(), 3);
    EXPECT_EQ(reports.first(), Report(1, 0));
    qint64 last = 0;
    bool sawFirstHalf = false, sawSecondHalf = false;
    for (int i = 1; i + 1 < reports.size(); ++i) {
        EXPECT_EQ(reports[i].first, 2);
        EXPECT_GE(reports[i].second, last);
        EXPECT_LE(reports[i].second, 100);
        sawFirstHalf |= reports[i].second < 50;
        sawSecondHalf |= reports[i].second > 50;
        last = reports[i].second;
    }
    EXPECT_TRUE(sawFirstHalf);
    EXPECT_TRUE(sawSecondHalf);
}

} // namespace

TEST_F(JobTest, TwoPassesReachTheTargetAndPlaceTheResult)
{
    const QString wav = makeWav(m_in.path(), QStringLiteral("speech.wav"), 8.0);
    auto gain = item(wav);
    ASSERT_TRUE(gain);
    const QByteArray original = [&] { QFile f(wav); f.open(QIODevice::ReadOnly); return f.readAll(); }();

    LogCapture log;
    JobRun run{gain};
    run.start();
    ASSERT_TRUE(run.waitEnd());
    EXPECT_EQ(run.reports.last(), Report(3, 0));
    expectProgressShape(run.reports);
    EXPECT_FALSE(run.offMainThread);
    EXPECT_FALSE(run.stateMismatch);
    EXPECT_TRUE(log.lines().filter(QStringLiteral("Waring")).isEmpty()) << qPrintable(log.lines().join('\n'));

    EXPECT_EQ(outputs(), QStringList{QStringLiteral("speech.wav")});
    EXPECT_EQ(gain->outPathFile(), QDir(m_out.path()).filePath(QStringLiteral("speech.wav")));
    EXPECT_FALSE(QFile::exists(gain->tempOutFile()));
    const fixtures::Loudness before = fixtures::measureLoudness(wav);
    const fixtures::Loudness after = fixtures::measureLoudness(gain->outPathFile());
    ASSERT_TRUE(before.ok && after.ok);
    EXPECT_NEAR(after.integrated, gain->loudnormValue(), 1.0) << "input was " << before.integrated;
    EXPECT_LT(after.truePeak, -1.0);
    // The input is never touched in folder mode.
    QFile in(wav);
    ASSERT_TRUE(in.open(QIODevice::ReadOnly));
    EXPECT_EQ(in.readAll(), original);
}

TEST_F(JobTest, ReplaceModePutsTheResultAtTheInputPath)
{
    const QString wav = makeWav(m_in.path(), QStringLiteral("loud.wav"), 3.0, 6.0);
    auto gain = item(wav);
    ASSERT_TRUE(gain);
    gain->setReplaceOriginalFile(true);
    gain->setTargetLoudness(50.0f);  // -37.5 LUFS: far from the input
    JobRun run{gain};
    run.start();
    ASSERT_TRUE(run.waitEnd());
    EXPECT_EQ(run.reports.last(), Report(3, 0));
    EXPECT_TRUE(outputs().isEmpty());
    EXPECT_TRUE(QDir(m_in.path()).entryList(QDir::Files | QDir::Hidden) == QStringList{QStringLiteral("loud.wav")});
    const fixtures::Loudness after = fixtures::measureLoudness(wav);
    ASSERT_TRUE(after.ok);
    EXPECT_NEAR(after.integrated, -37.5, 1.0);
}

TEST_F(JobTest, UnusableMeasurementFallsBackToThePassOneResult)
{
    const QString wav = makeWav(m_in.path(), QStringLiteral("fb.wav"), 2.0);
    auto gain = item(wav);
    ASSERT_TRUE(gain);

    const struct {
        QByteArray log;
        const char *reason;  // empty: the parser's own words
    } cases[] = {
        {"no record here at all", "Unknown"},
        {"closing only } then nothing", "Unknown"},
        {"} before { and no end", "Unknown"},
        {"noise { this is not json } noise", ""},
    };
    for (const auto &c : cases) {
        VXAudioGain::setCapturedLogHookForTesting([&](const QByteArray &) { return c.log; });
        LogCapture log;
        gain->setTargetLoudness(gain->targetLoudness());  // idle again
        JobRun run{gain};
        run.start();
        ASSERT_TRUE(run.waitEnd());
        EXPECT_EQ(run.reports.last(), Report(3, 0)) << c.log.constData();
        const QStringList warnings = log.lines().filter(QStringLiteral("Waring: Can not using two pass gain("));
        ASSERT_EQ(warnings.size(), 1) << c.log.constData();
        if (*c.reason)
            EXPECT_EQ(warnings[0], QStringLiteral("Waring: Can not using two pass gain(%1).").arg(QLatin1String(c.reason)));
        else
            EXPECT_FALSE(warnings[0].contains(QLatin1String("(Unknown)"))) << qPrintable(warnings[0]);
        // Only pass 1 ran: progress stops at the half.
        for (const Report &r : run.reports)
            EXPECT_LE(r.second, 50);
    }
    EXPECT_EQ(outputs().size(), int(std::size(cases)));  // each under its own free name

    // A record surrounded by other text is found and used.
    VXAudioGain::setCapturedLogHookForTesting([](const QByteArray &log) { return "before\n" + log + "\nafter }"; });
    LogCapture log;
    gain->setTargetLoudness(gain->targetLoudness());
    JobRun run{gain};
    run.start();
    ASSERT_TRUE(run.waitEnd());
    EXPECT_EQ(run.reports.last(), Report(3, 0));
    EXPECT_TRUE(log.lines().filter(QStringLiteral("Waring")).isEmpty());
    EXPECT_GT(run.reports[run.reports.size() - 2].second, 50);
}

TEST_F(JobTest, FailuresEndWithMinusOne)
{
    // The input is gone by the time the job starts: no transcoding.
    const QString wav = makeWav(m_in.path(), QStringLiteral("gone.wav"), 0.5);
    auto gain = item(wav);
    ASSERT_TRUE(gain);
    ASSERT_TRUE(QFile::remove(wav));
    JobRun run{gain};
    run.start();
    ASSERT_TRUE(run.waitEnd());
    EXPECT_EQ(run.reports, (QList<Report>{{1, 0}, {3, -1}}));
    EXPECT_EQ(gain->stateImage(), VXAudioGain::failureImage());

    // The output folder vanished while the job ran.
    const QString wav2 = makeWav(m_in.path(), QStringLiteral("late.wav"), 0.5);
    auto gain2 = item(wav2);
    ASSERT_TRUE(gain2);
    gain2->setOutFolder(QDir(m_out.path()).filePath(QStringLiteral("removed")));
    LogCapture log;
    JobRun run2{gain2};
    run2.start();
    ASSERT_TRUE(run2.waitEnd());
    EXPECT_EQ(run2.reports.last(), Report(3, -1));
    EXPECT_EQ(log.lines().filter(QStringLiteral("Failed to move file to dest path(")).size(), 1);
    EXPECT_TRUE(QFile::exists(gain2->tempOutFile()));  // kept until the cache is cleaned
}

TEST_F(JobTest, CancelInEitherPassPlacesNothing)
{
    const QString wav = makeWav(m_in.path(), QStringLiteral("long.wav"), 30.0);
    auto gain = item(wav);
    ASSERT_TRUE(gain);
    const QByteArray original = [&] { QFile f(wav); f.open(QIODevice::ReadOnly); return f.readAll(); }();

    // Pass 1: cancelled at its first progress report.
    JobRun first{gain};
    first.onReport = [](JobRun &r) {
        if (r.reports.last().first == 2)
            r.item->cancelGain();
    };
    first.start();
    ASSERT_TRUE(first.waitEnd());
    EXPECT_EQ(first.reports.last(), Report(3, -2));
    EXPECT_TRUE(gain->stateImage().isNull());
    EXPECT_TRUE(outputs().isEmpty());
    const QString firstTemp = gain->tempOutFile();

    // Restarted, and cancelled once pass 2 is under way.
    JobRun second{gain};
    second.onReport = [](JobRun &r) {
        if (r.reports.last().first == 2 && r.reports.last().second > 50)
            r.item->cancelGain();
    };
    second.start();
    ASSERT_TRUE(second.waitEnd());
    EXPECT_EQ(second.reports.last(), Report(3, -2));
    EXPECT_NE(gain->tempOutFile(), firstTemp);
    EXPECT_TRUE(outputs().isEmpty());
    QFile in(wav);
    ASSERT_TRUE(in.open(QIODevice::ReadOnly));
    EXPECT_EQ(in.readAll(), original);

    // A cancel that lands between passes still stops the job.
    JobRun third{gain};
    third.start();
    gain->cancelGain();  // before any pass has started
    ASSERT_TRUE(third.waitEnd());
    EXPECT_EQ(third.reports.last(), Report(3, -2));
    EXPECT_TRUE(outputs().isEmpty());
}

TEST_F(JobTest, EightJobsWithOneNameGetEightFiles)
{
    ASSERT_TRUE(QFile(QDir(m_out.path()).filePath(QStringLiteral("song.wav"))).open(QIODevice::WriteOnly));
    constexpr int kJobs = 8;
    std::vector<std::unique_ptr<JobRun>> runs;
    for (int i = 0; i < kJobs; ++i) {
        const QString sub = QDir(m_in.path()).filePath(QString::number(i));
        QDir().mkpath(sub);
        auto gain = item(makeWav(sub, QStringLiteral("song.wav"), 1.0, -i));
        ASSERT_TRUE(gain);
        runs.push_back(std::make_unique<JobRun>(gain));
    }
    for (auto &run : runs)
        run->start();
    ASSERT_TRUE(waitFor([&] {
        return std::all_of(runs.begin(), runs.end(), [](const auto &r) { return r->ended(); });
    }));
    // Temporary names may be reused once a job has moved its file away;
    // while jobs run side by side they are distinct, or their outputs would
    // clash and fail below.
    QSet<QString> finals;
    for (auto &run : runs) {
        EXPECT_EQ(run->reports.last(), Report(3, 0));
        finals.insert(run->item->outPathFile());
        EXPECT_TRUE(QFile::exists(run->item->outPathFile()));
    }
    EXPECT_EQ(finals.size(), kJobs);
    EXPECT_EQ(outputs().size(), kJobs + 1);
    EXPECT_EQ(QFileInfo(QDir(m_out.path()).filePath(QStringLiteral("song.wav"))).size(), 0);  // untouched
}

TEST_F(JobTest, WithoutCallbackTheStateStillChangesOnTheMainThread)
{
    const QString wav = makeWav(m_in.path(), QStringLiteral("quiet.wav"), 1.0);
    auto gain = item(wav);
    ASSERT_TRUE(gain);
    bool offMain = false;
    QList<qint32> states;
    QObject::connect(gain.get(), &VXAudioGain::stateChanged, gain.get(), [&] {
        offMain |= QThread::currentThread() != qApp->thread();
        states << gain->state();
    }, Qt::DirectConnection);
    gain->gainWithBlock({});
    ASSERT_TRUE(waitFor([&] { return gain->state() == 3; }));
    EXPECT_EQ(gain->retCode(), 0);
    EXPECT_FALSE(offMain);
    EXPECT_EQ(states.first(), 1);
    EXPECT_EQ(states.last(), 3);
}

TEST_F(JobTest, ShutdownReleasesRunningJobsPromptly)
{
    const QString wav = makeWav(m_in.path(), QStringLiteral("long.wav"), 30.0);
    auto gain = item(wav);
    ASSERT_TRUE(gain);
    JobRun run{gain};
    run.start();
    ASSERT_TRUE(waitFor([&] { return run.reports.size() >= 2; }));
    // Not processing events from here on: the job's next report is left
    // waiting for the main thread, which shutdown must release.
    EXPECT_TRUE(VXAudioGain::cancelAllJobsAndWait(20000));
    VXMainThread::resume();
    EXPECT_FALSE(run.ended());
    EXPECT_TRUE(outputs().isEmpty());
}

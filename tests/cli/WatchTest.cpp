// A hot folder: the tool left running on a folder, files arriving as other
// programs write them, stopped by signals and killed.
#include "CliTestUtil.h"
#include "tests/support/Fixtures.h"

#include <QFile>
#include <QJsonObject>
#include <QMap>
#include <QProcess>
#include <QThread>

#include <csignal>

namespace {

// The tool watching a folder, its JSON Lines and messages read as they come.
struct Watcher {
    QProcess p;
    QByteArray out, err;

    Watcher(const QStringList &args, const QString &stateHome)
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("XDG_STATE_HOME", stateHome);
        p.setProcessEnvironment(env);
        p.setStandardInputFile(QProcess::nullDevice());
        p.start(QStringLiteral(EVENLOUD_CLI), QStringList{"--jsonl", "--settle", "1"} + args);
    }
    ~Watcher()
    {
        if (p.state() != QProcess::NotRunning) {
            ::kill(pid_t(p.processId()), SIGKILL);
            p.waitForFinished(-1);
        }
    }
    void read()
    {
        out += p.readAllStandardOutput();
        err += p.readAllStandardError();
    }
    bool waitForErr(const QByteArray &text)
    {
        return fixtures::waitFor([&] { read(); return err.contains(text) || p.state() == QProcess::NotRunning; })
            && err.contains(text);
    }
    QList<QJsonObject> results()
    {
        read();
        QList<QJsonObject> objects;
        for (const QByteArray &line : out.split('\n'))
            if (!line.isEmpty())
                objects << QJsonDocument::fromJson(line).object();
        return objects;
    }
    QStringList inputs()
    {
        QStringList names;
        for (const QJsonObject &o : results())
            names << QFileInfo(o["input"].toString()).fileName();
        return names;
    }
    bool waitForResults(int count)
    {
        return fixtures::waitFor([&] { return results().size() >= count || p.state() == QProcess::NotRunning; })
            && results().size() >= count;
    }
    // The exit status after sig.
    int stop(int sig = SIGTERM)
    {
        ::kill(pid_t(p.processId()), sig);
        if (!p.waitForFinished(120000))
            return -1;
        read();
        return p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
    }
};

// How many times the journals under dir say each input was finished.
QMap<QString, int> doneCounts(const QString &dir)
{
    QMap<QString, int> counts;
    for (const QFileInfo &journal : QDir(dir).entryInfoList({"*.journal"}, QDir::Files)) {
        QFile file(journal.filePath());
        if (!file.open(QIODevice::ReadOnly))
            continue;
        for (const QByteArray &line : file.readAll().split('\n')) {
            const QJsonObject o = QJsonDocument::fromJson(line).object();
            if (o["e"].toString() == "done")
                ++counts[QFileInfo(o["in"].toString()).fileName()];
        }
    }
    return counts;
}

// Moved in whole, as an editor's export into a hot folder usually arrives.
QString dropWav(const QString &staging, const QString &in, const QString &name, double seconds = 1.0)
{
    const QString made = fixtures::makeWav(staging, name, seconds);
    return !made.isEmpty() && QFile::rename(made, in + "/" + name) ? in + "/" + name : QString();
}

double duration(const QString &path)
{
    QString out;
    if (!fixtures::run("ffprobe", {"-v", "error", "-show_entries", "format=duration", "-of", "csv=p=0", path}, &out))
        return -1;
    return out.trimmed().toDouble();
}

// The names in a folder, hidden ones aside, as one line that reads well in
// a failure.
std::string visibleFiles(const QString &folder)
{
    return QDir(folder).entryList(QDir::Files, QDir::Name).join(' ').toStdString();
}

std::string joined(const QStringList &names) { return names.join(' ').toStdString(); }

class CliWatch : public CliFolderTest {
protected:
    void SetUp() override
    {
        CliFolderTest::SetUp();
        for (const char *dir : {"in", "out", "staging", "state", "done", "failed"})
            ASSERT_TRUE(QDir().mkpath(tmp.filePath(dir)));
        in = tmp.filePath("in");
        out = tmp.filePath("out");
        staging = tmp.filePath("staging");
        state = tmp.filePath("state");
    }
    QString in, out, staging, state;
};

} // namespace

// Only complete files are taken, each once: one written slowly in pieces
// after its close, whole; a ".part" under its final name once renamed;
// hidden files and backups never.
TEST_F(CliWatch, TakesFilesOnceTheyAreComplete)
{
    Watcher w({"--watch", in, "-o", out, "--lufs", "-20"}, state);
    ASSERT_TRUE(w.waitForErr("Watching")) << w.err.toStdString();
    const QByteArray wav = fixtures::readFile(fixtures::makeWav(staging, "slow.wav", 3.0));
    ASSERT_FALSE(wav.isEmpty());
    ASSERT_TRUE(fixtures::writeFile(in + "/.hidden.wav", wav));
    ASSERT_TRUE(fixtures::writeFile(in + "/backup.wav~", wav));
    QFile slow(in + "/slow.wav");
    ASSERT_TRUE(slow.open(QIODevice::WriteOnly));
    ASSERT_EQ(slow.write(wav.left(wav.size() / 2)), wav.size() / 2);
    ASSERT_TRUE(slow.flush());
    QThread::msleep(1500);  // a writer that pauses longer than --settle
    // What arrives next is seen after the slow file's events so far.
    ASSERT_FALSE(dropWav(staging, in, "first.wav").isEmpty());
    ASSERT_TRUE(w.waitForResults(1)) << w.err.toStdString();
    EXPECT_EQ(joined(w.inputs()), "first.wav");

    ASSERT_EQ(slow.write(wav.mid(wav.size() / 2)), wav.size() - wav.size() / 2);
    slow.close();
    ASSERT_TRUE(w.waitForResults(2)) << w.err.toStdString();
    ASSERT_TRUE(fixtures::writeFile(in + "/part.wav.part", wav));
    ASSERT_TRUE(QFile::rename(in + "/part.wav.part", in + "/part.wav"));
    ASSERT_TRUE(w.waitForResults(3)) << w.err.toStdString();
    EXPECT_EQ(w.stop(), 143) << w.err.toStdString();

    EXPECT_EQ(joined(w.inputs()), "first.wav slow.wav part.wav");
    for (const QJsonObject &o : w.results())
        EXPECT_EQ(o["result"].toString(), "ok") << o["input"].toString().toStdString();
    EXPECT_EQ(visibleFiles(out), "first.wav part.wav slow.wav");
    EXPECT_NEAR(duration(out + "/slow.wav"), 3.0, 0.05);
}

// Killed at any moment and started again, the watch does no file twice and
// misses none, those that came while it was down included.
TEST_F(CliWatch, RestartAfterAKillDoesNothingTwiceAndMissesNothing)
{
    QStringList names;
    for (int i = 0; i < 6; ++i) {
        names << QStringLiteral("track%1.wav").arg(i);
        ASSERT_FALSE(dropWav(staging, in, names.last(), 3.0).isEmpty());
    }
    const QStringList args{"--watch", in, "-o", out, "--lufs", "-20", "--jobs", "1"};
    {
        Watcher w(args, state);
        ASSERT_TRUE(fixtures::waitFor([&] { return doneCounts(state + "/evenloud").size() >= 2; }));
        EXPECT_EQ(w.stop(SIGKILL), -1);
    }
    for (const char *late : {"late1.wav", "late2.wav"}) {
        names << QString::fromLatin1(late);
        ASSERT_FALSE(dropWav(staging, in, names.last()).isEmpty());
    }
    Watcher again(args, state);
    ASSERT_TRUE(fixtures::waitFor([&] { return doneCounts(state + "/evenloud").size() == names.size(); }))
        << again.err.toStdString();
    EXPECT_EQ(again.stop(), 143);
    EXPECT_TRUE(again.err.contains("done by an earlier run")) << again.err.toStdString();

    const QMap<QString, int> done = doneCounts(state + "/evenloud");
    for (const QString &name : names)
        EXPECT_EQ(done.value(name), 1) << name.toStdString();
    names.sort();
    EXPECT_EQ(visibleFiles(out), joined(names));
}

// A file that cannot be read goes to the failed folder with its reason
// beside it, a good one's original to the done folder once its result is
// placed, and the watch goes on.
TEST_F(CliWatch, FailuresAndOriginalsMoveOnAndTheWatchGoesOn)
{
    const QString done = tmp.filePath("done"), failed = tmp.filePath("failed");
    ASSERT_TRUE(fixtures::writeFile(in + "/bad.wav", QByteArray(20000, 'z')));
    Watcher w({"--watch", in, "-o", out, "--done-folder", done, "--failed-folder", failed}, state);
    ASSERT_TRUE(w.waitForResults(1)) << w.err.toStdString();
    ASSERT_FALSE(dropWav(staging, in, "good.wav").isEmpty());
    ASSERT_TRUE(w.waitForResults(2)) << w.err.toStdString();
    // A file of the same name as the failed one, good this time.
    ASSERT_FALSE(dropWav(staging, in, "bad.wav").isEmpty());
    ASSERT_TRUE(w.waitForResults(3)) << w.err.toStdString();
    EXPECT_EQ(w.stop(), 143);

    const QList<QJsonObject> results = w.results();
    ASSERT_EQ(results.size(), 3);
    EXPECT_NE(results[0]["result"].toString(), "ok");
    const QString reason = results[0]["reason"].toString();
    EXPECT_FALSE(reason.isEmpty());
    EXPECT_EQ(visibleFiles(failed), "bad.wav bad.wav.txt");
    EXPECT_TRUE(QString::fromUtf8(fixtures::readFile(failed + "/bad.wav.txt")).startsWith(reason));
    EXPECT_EQ(results[1]["result"].toString(), "ok");
    EXPECT_EQ(results[2]["result"].toString(), "ok");
    EXPECT_EQ(visibleFiles(done), "bad.wav good.wav");
    EXPECT_EQ(visibleFiles(out), "bad.wav good.wav");
    EXPECT_TRUE(entries(in).isEmpty()) << entries(in).join(' ').toStdString();
}

// SIGTERM while a file runs cancels it cleanly: 143, nothing in the output
// folder, not even hidden, and the original untouched where it was (it is
// no failure); Ctrl-C while idle ends with 130.
TEST_F(CliWatch, SignalsStopTheWatchCleanly)
{
    const QString failed = tmp.filePath("failed");
    const QString original = fixtures::makeLong(staging, "long.flac", 1800);
    ASSERT_FALSE(original.isEmpty());
    const QByteArray bytes = fixtures::readFile(original);
    Watcher w({"--watch", in, "-o", out, "--failed-folder", failed}, state);
    ASSERT_TRUE(w.waitForErr("Watching"));
    ASSERT_TRUE(QFile::rename(original, in + "/long.flac"));
    ASSERT_TRUE(w.waitForErr("] start ")) << w.err.toStdString();
    EXPECT_EQ(w.stop(SIGTERM), 143) << w.err.toStdString();
    EXPECT_TRUE(entries(out).isEmpty()) << entries(out).join(' ').toStdString();
    EXPECT_TRUE(entries(failed).isEmpty()) << entries(failed).join(' ').toStdString();
    EXPECT_EQ(fixtures::readFile(in + "/long.flac"), bytes);

    Watcher idle({"--watch", tmp.filePath("done"), "-o", out}, state);
    ASSERT_TRUE(idle.waitForErr("Watching"));
    EXPECT_EQ(idle.stop(SIGINT), 130);
}

// What a watch cannot do is said before it starts.
TEST_F(CliWatch, RefusesWhatCannotWork)
{
    const QList<QStringList> refused{
        {"--watch", in, "-o", in},
        {"--watch", in, "-o", out, "--done-folder", in},
        {"--watch", in, "-o", out, "--album"},
        {"--watch", in, "-o", out, tmp.filePath("staging")},
        {"--watch", in, "-o", out, "--settle", "0"},
        {"-o", out, "--done-folder", tmp.filePath("done"), in},
    };
    for (const QStringList &args : refused) {
        const CliRunResult r = runCli(args);
        EXPECT_EQ(r.exitCode, 2) << args.join(' ').toStdString() << "\n" << r.err.toStdString();
    }
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("XDG_STATE_HOME", state);
    const CliRunResult missing = runCli({"--watch", tmp.filePath("nowhere"), "-o", out}, env);
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_TRUE(missing.err.contains("no such folder")) << missing.err.toStdString();
}

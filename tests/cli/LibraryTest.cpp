// Large libraries: lists of files from other tools, results as they come,
// runs that resume after a kill, and one library split between processes.
#include "CliTestUtil.h"
#include "tests/support/Fixtures.h"

#include <QFile>
#include <QJsonObject>
#include <QMap>
#include <QProcess>
#include <QStandardPaths>

#include <csignal>

namespace {

QList<QJsonObject> jsonLines(const QString &text)
{
    QList<QJsonObject> objects;
    for (const QString &line : text.split('\n', Qt::SkipEmptyParts))
        objects << QJsonDocument::fromJson(line.toUtf8()).object();
    return objects;
}

// How many times the journal says each input was finished.
QMap<QString, int> doneCounts(const QString &journal)
{
    QMap<QString, int> counts;
    QFile file(journal);
    if (!file.open(QIODevice::ReadOnly))
        return counts;
    for (const QByteArray &line : file.readAll().split('\n')) {
        const QJsonObject o = QJsonDocument::fromJson(line).object();
        if (o["e"].toString() == "done")
            ++counts[o["in"].toString()];
    }
    return counts;
}

QStringList makeWavs(const QString &dir, int count, double seconds)
{
    QDir().mkpath(dir);
    QStringList made;
    for (int i = 0; i < count; ++i)
        made << fixtures::makeWav(dir, QStringLiteral("track%1.wav").arg(i, 2, 10, QLatin1Char('0')), seconds, -4.0 + i % 5);
    return made;
}

} // namespace

using CliLibrary = CliFolderTest;

// find -print0 | evenloud-cli --files-from - -0: names may hold newlines,
// and each line of a plain list is one name, a CR before its end aside.
TEST_F(CliLibrary, FilesFromListsTakeEveryNameAsWritten)
{
    const QStringList names{"line\nbreak.wav", "plain.wav", "with space.wav"};
    QByteArray nulList, lineList;
    for (const QString &name : names) {
        ASSERT_FALSE(fixtures::makeWav(tmp.path(), name, 0.5).isEmpty());
        nulList += QFile::encodeName(tmp.filePath(name)) + '\0';
        if (!name.contains('\n'))
            lineList += QFile::encodeName(tmp.filePath(name)) + "\r\n";
    }
    QProcess p;
    p.start(QStringLiteral(EVENLOUD_CLI), {"--analyze", "--jsonl", "--files-from", "-", "-0"});
    ASSERT_TRUE(p.waitForStarted(-1));
    p.write(nulList);
    p.closeWriteChannel();
    ASSERT_TRUE(p.waitForFinished(120000));
    EXPECT_EQ(p.exitCode(), 0) << p.readAllStandardError().toStdString();
    QStringList seen;
    for (const QJsonObject &o : jsonLines(QString::fromUtf8(p.readAllStandardOutput())))
        seen << QFileInfo(o["input"].toString()).fileName();
    seen.sort();
    EXPECT_EQ(seen, names);

    const QString list = tmp.filePath("list.txt");
    ASSERT_TRUE(fixtures::writeFile(list, lineList + "\n" + QFile::encodeName(tmp.filePath("gone.wav")) + "\n"));
    const CliRunResult r = runCli({"--analyze", "--json", "--files-from", list});
    EXPECT_EQ(r.exitCode, 1) << r.err.toStdString();  // the missing one
    QStringList results;
    for (const QJsonValue &v : r.json())
        results << QFileInfo(v["input"].toString()).fileName() + ":" + v["result"].toString();
    results.sort();
    EXPECT_EQ(results, (QStringList{"gone.wav:missing", "plain.wav:analyzed", "with space.wav:analyzed"}));
}

// --jsonl is --json a line at a time: the same objects, each written as
// its file ends; the table and the array follow the order found.
TEST_F(CliLibrary, JsonLinesCarryTheObjectsOfTheJsonArray)
{
    const QStringList files = makeWavs(tmp.filePath("in"), 4, 0.5);
    ASSERT_FALSE(files.contains(QString()));
    const QString out = tmp.filePath("out");
    const CliRunResult array = runCli({"--json", "--analyze", "--lufs", "-20", tmp.filePath("in")});
    const CliRunResult lines = runCli({"--jsonl", "--analyze", "--lufs", "-20", tmp.filePath("in")});
    ASSERT_EQ(array.exitCode, 0);
    ASSERT_EQ(lines.exitCode, 0);
    QMap<QString, QJsonObject> byInput;
    for (const QJsonObject &o : jsonLines(lines.out)) {
        QJsonObject copy = o;
        copy.remove("seconds");
        byInput[o["input"].toString()] = copy;
    }
    ASSERT_EQ(array.json().size(), 4);
    QStringList order;
    for (const QJsonValue &v : array.json()) {
        QJsonObject o = v.toObject();
        order << o["input"].toString();
        o.remove("seconds");
        EXPECT_EQ(o, byInput.value(o["input"].toString())) << o["input"].toString().toStdString();
    }
    EXPECT_EQ(order, files);
}

// Killed at any moment, the same command with the same journal finishes the
// rest: every file done once, none twice, nothing left behind.
TEST_F(CliLibrary, AKilledRunResumesFromItsJournalAndDoesNothingTwice)
{
    const QString in = tmp.filePath("in");
    const QStringList files = makeWavs(in, 10, 4.0);
    ASSERT_FALSE(files.contains(QString()));
    const QString journal = tmp.filePath("run.journal");
    const QStringList args{"--replace", "--lufs", "-20", "--jobs", "1", "--jsonl", "--journal", journal, in};

    for (int kill = 0; kill < 2; ++kill) {
        QProcess p;
        p.start(QStringLiteral(EVENLOUD_CLI), args);
        ASSERT_TRUE(p.waitForStarted(-1));
        const int before = doneCounts(journal).size();
        ASSERT_TRUE(fixtures::waitFor([&] { return doneCounts(journal).size() >= before + 2; }, 120000));
        ::kill(pid_t(p.processId()), SIGKILL);
        ASSERT_TRUE(p.waitForFinished(-1));
    }
    const CliRunResult rest = runCli(args);
    EXPECT_EQ(rest.exitCode, 0) << rest.err.toStdString();
    const QMap<QString, int> done = doneCounts(journal);
    EXPECT_EQ(done.size(), files.size());
    for (const QString &file : files)
        EXPECT_EQ(done.value(file), 1) << file.toStdString();
    // The last run reported only what was left, and said what it skipped.
    EXPECT_LT(jsonLines(rest.out).size(), files.size());
    EXPECT_TRUE(rest.err.contains("done by an earlier run")) << rest.err.toStdString();
    // Every file at the target, no staged or temporary file left.
    const CliRunResult check = runCli({"--analyze", "--json", in});
    for (const QJsonValue &v : check.json())
        EXPECT_NEAR(v["input_i"].toDouble(), -20.0, 0.5) << v["input"].toString().toStdString();
    EXPECT_EQ(entries(in).size(), files.size()) << entries(in).join(' ').toStdString();

    const CliRunResult again = runCli(args);
    EXPECT_EQ(again.exitCode, 0);
    EXPECT_TRUE(again.out.isEmpty()) << again.out.toStdString();
}

// N processes given the same folder split it with no coordinator: through
// GNU parallel, four shards cover every file exactly once.
TEST_F(CliLibrary, FourShardsThroughGnuParallelCoverEveryFileOnce)
{
    const QString parallel = QStandardPaths::findExecutable("parallel");
    if (parallel.isEmpty())
        GTEST_SKIP() << "GNU parallel is not installed";
    const QString in = tmp.filePath("library");
    const QStringList files = makeWavs(in + "/a", 8, 0.3) + makeWavs(in + "/b/c", 8, 0.3);
    ASSERT_FALSE(files.contains(QString()));
    QString out;
    ASSERT_TRUE(fixtures::run(parallel, {"--will-cite", "-j4", EVENLOUD_CLI, "--analyze", "--jsonl", "--recursive",
                                         "--shard", "{}/4", in, ":::", "1", "2", "3", "4"},
                              &out));
    QMap<QString, int> seen;
    int shardsWithFiles = 0;
    for (const QString &line : out.split('\n', Qt::SkipEmptyParts)) {
        const QJsonObject o = QJsonDocument::fromJson(line.toUtf8()).object();
        if (!o.isEmpty())
            ++seen[o["input"].toString()];
        else if (line.contains("left to the other shards"))
            ++shardsWithFiles;
    }
    EXPECT_EQ(seen.size(), files.size());
    for (const QString &file : files)
        EXPECT_EQ(seen.value(file), 1) << file.toStdString();
    EXPECT_EQ(shardsWithFiles, 4) << out.toStdString();
}

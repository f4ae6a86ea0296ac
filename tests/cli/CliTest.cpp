#include "cli/CliOptions.h"
#include "tests/cli/CliTestUtil.h"
#include "tests/support/FileWatch.h"
#include "tests/support/Fixtures.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcessEnvironment>
#include <QMap>
#include <QProcess>
#include <QTemporaryDir>

#include <csignal>
#include <random>
#include <unistd.h>
#include <gtest/gtest.h>


TEST(CliTarget, LufsMapsToPositionWithinAHundredthOfLu)
{
    for (double lufs = -70.0; lufs <= -5.0; lufs += 0.37) {
        const auto position = VXLoudnessScale::positionForLufs(lufs);
        ASSERT_TRUE(position.has_value()) << lufs;
        EXPECT_NEAR(VXLoudnessScale::lufsForPosition(*position), lufs, 0.01) << lufs;
    }
    EXPECT_NEAR(VXLoudnessScale::lufsForPosition(70.77f), -24.0, 0.001);
    EXPECT_FLOAT_EQ(*VXLoudnessScale::positionForLufs(-70.0), 0.0f);
    EXPECT_FLOAT_EQ(*VXLoudnessScale::positionForLufs(-5.0), 100.0f);
    for (double bad : {-70.01, -4.99, 0.0, std::nan("")})
        EXPECT_FALSE(VXLoudnessScale::positionForLufs(bad).has_value()) << bad;
}

TEST(CliTarget, PresetsSetTheirLevelAndCeiling)
{
    for (const VXPreset &preset : kVXPresets) {
        const QString name = QString::fromLatin1(preset.name.data(), qsizetype(preset.name.size()));
        const CliParse p = parseCommandLine({"evenloud-cli", "--preset", name, "--replace", "a.mp3"}, 1);
        ASSERT_TRUE(p.options) << p.text.toStdString();
        EXPECT_NEAR(VXLoudnessScale::lufsForPosition(p.options->settings.targetLoudness), preset.lufs, 0.01) << p.text.toStdString();
        // Where the standard names no ceiling, the tool's own.
        EXPECT_EQ(p.options->settings.truePeakCeiling, std::isnan(preset.truePeak) ? -2.0f : preset.truePeak) << name.toStdString();
    }
    // A ceiling given on its own outranks the preset's.
    const CliParse own = parseCommandLine({"evenloud-cli", "--preset", "EBU", "--true-peak", "-3", "--replace", "a"}, 1);
    ASSERT_TRUE(own.options);
    EXPECT_EQ(own.options->settings.truePeakCeiling, -3.0f);
}

TEST(CliUsage, ErrorsExitWithTwoAndSayWhy)
{
    const QString out = QDir::tempPath() + "/evenloud-cli-test-never-made";
    const QList<QStringList> bad = {
        {"some.mp3"},                                          // neither folder nor replace
        {"--lufs", "-99", "-o", out, "some.mp3"},              // out of range
        {"--lufs", "loud", "-o", out, "some.mp3"},             // not a number
        {"--target", "100.5", "--replace", "some.mp3"},
        {"--target", "50", "--lufs", "-20", "--replace", "some.mp3"},
        {"--replace", "-o", out, "some.mp3"},                  // both places
        {"--jobs", "0", "--replace", "some.mp3"},
        {"--true-peak", "1", "--replace", "some.mp3"},         // a ceiling above full scale
        {"--replace"},                                         // nothing to do
        {"--no-such-option", "--replace", "some.mp3"},
        {"--target", "-16", "--replace", "some.mp3"},          // a level where the position goes
        {"--target", "16LUFS", "--replace", "some.mp3"},
        {"--preset", "loud", "--replace", "some.mp3"},
        {"--preset", "ebu", "--lufs", "-20", "--replace", "some.mp3"},
        {"--analyze", "--replace", "some.mp3"},                // analysis writes nothing
        {"--skip-within", "-1", "--replace", "some.mp3"},
    };
    for (const QStringList &args : bad) {
        const CliRunResult r = runCli(args);
        EXPECT_EQ(r.exitCode, 2) << args.join(' ').toStdString();
        EXPECT_TRUE(r.err.contains("evenloud-cli: ")) << r.err.toStdString();
        EXPECT_TRUE(r.out.isEmpty()) << r.out.toStdString();
    }
    EXPECT_FALSE(QFileInfo::exists(out));

    const CliRunResult help = runCli({"--help"});
    EXPECT_EQ(help.exitCode, 0);
    for (const char *part : {"Usage: evenloud-cli", "--output-folder", "0-100 position", "--analyze", "podcast",
                             "Exit status:", "130", "Example"})
        EXPECT_TRUE(help.out.contains(part)) << part;
    const CliRunResult version = runCli({"--version"});
    EXPECT_EQ(version.exitCode, 0);
    EXPECT_TRUE(version.out.startsWith("evenloud-cli ")) << version.out.toStdString();
}

TEST_F(CliRun, NormalisesIntoNewFolderAndReportsJson)
{
    const QString in = tmp.filePath("in");
    QDir().mkpath(in + "/sub");
    const QString wav = fixtures::makeAudio(in, "quiet.wav", 8, {"-c:a", "pcm_s16le"}, -14);
    const QString mp3 = fixtures::makeAudio(in, "loud.MP3", 8, {"-c:a", "libmp3lame", "-b:a", "160k"}, 0);
    const QString deep = fixtures::makeAudio(in + "/sub", "deep.flac", 4, {"-c:a", "flac"});
    ASSERT_FALSE(wav.isEmpty() || mp3.isEmpty() || deep.isEmpty());
    QFile(in + "/notes.txt").open(QIODevice::WriteOnly);
    const QByteArray wavBefore = fixtures::readFile(wav);

    // The folder and one of its files again (the same path): each file once;
    // the sub-folder is not entered without --recursive.
    const QString out = tmp.filePath("made/for/us");
    const CliRunResult r = runCli({"--lufs", "-16", "-o", out, "--json", in, in + "/loud.MP3"});
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();

    QJsonParseError error{};
    const QJsonArray results = QJsonDocument::fromJson(r.out.toUtf8(), &error).array();
    ASSERT_EQ(error.error, QJsonParseError::NoError) << r.out.toStdString();
    ASSERT_EQ(results.size(), 2) << r.out.toStdString();
    for (const QJsonValue &v : results) {
        const QJsonObject o = v.toObject();
        EXPECT_EQ(o["result"].toString(), "ok");
        EXPECT_NEAR(o["target_lufs"].toDouble(), -16.0, 0.01);
        EXPECT_TRUE(o["input_i"].isDouble() && o["input_tp"].isDouble() && o["input_lra"].isDouble());
        const QString output = o["output"].toString();
        EXPECT_TRUE(output.startsWith(out + "/")) << output.toStdString();
        EXPECT_EQ(QFileInfo(output).suffix(), QFileInfo(o["input"].toString()).suffix());
        const fixtures::Loudness l = fixtures::measureLoudness(output);
        ASSERT_TRUE(l.ok) << output.toStdString();
        EXPECT_NEAR(l.integrated, -16.0, 0.5) << output.toStdString();
        EXPECT_LE(l.truePeak, -1.5) << output.toStdString();
        // What was done, as the independent meter sees it.
        EXPECT_EQ(o["schema_version"].toInt(), 2);
        EXPECT_EQ(o["normalization"].toString(), "linear");
        EXPECT_NEAR(o["gain_db"].toDouble(), -16.0 - o["input_i"].toDouble(), 0.05);
        EXPECT_NEAR(o["output_i"].toDouble(), l.integrated, 0.2);
        EXPECT_TRUE(o["output_tp"].isDouble() && o["output_lra"].isDouble());
        EXPECT_FALSE(o.contains("reason"));
    }
    EXPECT_EQ(fixtures::readFile(wav), wavBefore);
    EXPECT_EQ(entries(out).size(), 2);

    // The same again, recursively: the sub-folder's file comes too, and the
    // existing results are never overwritten.
    const CliRunResult again = runCli({"-r", "-o", out, in});
    EXPECT_EQ(again.exitCode, 0) << again.err.toStdString();
    EXPECT_EQ(entries(out).size(), 5);
    EXPECT_TRUE(again.out.startsWith("RESULT")) << again.out.toStdString();
}

TEST_F(CliRun, CorruptOrMissingInputMakesExitOne)
{
    const QString good = fixtures::makeAudio(tmp.path(), "good.ogg", 5, {"-c:a", "libvorbis"});
    ASSERT_FALSE(good.isEmpty());
    const QString bad = tmp.filePath("bad.mp3");
    ASSERT_TRUE(fixtures::writeFile(bad, QByteArray(4096, 'x')));

    const QString out = tmp.filePath("out");
    const CliRunResult r = runCli({"-o", out, "--json", good, bad, tmp.filePath("gone.wav")});
    EXPECT_EQ(r.exitCode, 1) << r.err.toStdString();
    QStringList outcomes;
    for (const QJsonValue &v : r.json()) {
        const QJsonObject o = v.toObject();
        outcomes << o["result"].toString();
        EXPECT_EQ(o["result"] != "ok", !o["reason"].toString().isEmpty()) << r.out.toStdString();
        EXPECT_EQ(o["result"] == "ok", o["output_i"].isDouble()) << r.out.toStdString();
    }
    outcomes.sort();
    EXPECT_EQ(outcomes, (QStringList{"missing", "ok", "refused"})) << r.out.toStdString();
    EXPECT_TRUE(r.err.contains("Can not import audio file(" + bad + ")")) << r.err.toStdString();
    EXPECT_EQ(entries(out), QStringList{"good.ogg"});
}

TEST_F(CliRun, InterruptCancelsCleanly)
{
    // Long enough that the first pass (seconds of measuring, even on a fast
    // machine) is still running when the signal lands.
    const QString input = fixtures::makeLong(tmp.path(), "long.flac", 600);
    ASSERT_FALSE(input.isEmpty());
    const QByteArray before = fixtures::readFile(input);
    const QString out = tmp.filePath("out");

    struct Case {
        QStringList args;
        int interrupts;
        int signal = SIGINT;
    } cases[] = {
        {{"-o", out, input}, 1},        // cancels, waits for the job, exits
        {{"--replace", input}, 1, SIGTERM},
        {{"--replace", input}, 2},      // the second one quits at once
    };
    for (const Case &c : cases) {
        QProcess p;
        p.start(QStringLiteral(EVENLOUD_CLI), c.args);
        ASSERT_TRUE(p.waitForStarted(-1));
        QByteArray err;
        ASSERT_TRUE(waitForFileStart(p, &err)) << err.toStdString();
        for (int i = 0; i < c.interrupts; ++i)
            ::kill(pid_t(p.processId()), c.signal);
        ASSERT_TRUE(p.waitForFinished(120000));
        err += p.readAllStandardError();
        EXPECT_EQ(p.exitStatus(), QProcess::NormalExit);
        EXPECT_EQ(p.exitCode(), 128 + c.signal) << err.toStdString();
        EXPECT_EQ(fixtures::readFile(input), before);
        EXPECT_TRUE(entries(out).isEmpty()) << entries(out).join(' ').toStdString();
        EXPECT_EQ(entries(tmp.path()), QStringList{"long.flac"});
    }
}

// An interrupt stops measuring (analysis, tags) at once, however long the
// file: the worker child measuring it is killed rather than waited for.
TEST_F(CliRun, InterruptStopsMeasuringAtOnce)
{
    const QString input = fixtures::makeLong(tmp.path(), "long.flac", 1800);
    ASSERT_FALSE(input.isEmpty());
    const QString out = tmp.filePath("out");
    for (const QStringList &mode : {QStringList{"--analyze"}, QStringList{"--tags-only", "-o", out}}) {
        const std::string name = mode.first().toStdString();
        fixtures::FileWatch opened(input, fixtures::FileWatch::Use::Open);
        QProcess p;
        p.start(QStringLiteral(EVENLOUD_CLI), mode + QStringList{"--json", input});
        ASSERT_TRUE(p.waitForStarted(-1));
        ASSERT_TRUE(opened.wait()) << name;
        // Tags are an item's job: the file is probed as it is found, then
        // measured; the signal is meant for the measuring, which opens it last.
        while (opened.wait(500)) {
        }
        ::kill(pid_t(p.processId()), SIGINT);
        // Measuring the file alone takes some 20 s.
        ASSERT_TRUE(p.waitForFinished(5000)) << name;
        const QString err = QString::fromUtf8(p.readAllStandardError());
        EXPECT_EQ(p.exitCode(), 128 + SIGINT) << err.toStdString();
        const QJsonArray results = QJsonDocument::fromJson(p.readAllStandardOutput()).array();
        ASSERT_EQ(results.size(), 1) << name;
        EXPECT_EQ(results[0].toObject()["result"].toString(), "cancelled") << name;
        EXPECT_TRUE(entries(out).isEmpty()) << name;
    }
}

// A run killed outright mid-job cannot clean up after itself: nothing of it
// is left in the temporary folder once a later run has swept it.
TEST_F(CliRun, KilledRunLeavesNothingOnceAnotherHasRun)
{
    const QString temp = tmp.filePath("temp");
    ASSERT_TRUE(QDir().mkpath(temp));
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("TMPDIR", temp);
    const QString input = fixtures::makeLong(tmp.path(), "long.flac", 600);
    const QString brief = fixtures::makeWav(tmp.path(), "brief.wav");
    ASSERT_FALSE(input.isEmpty() || brief.isEmpty());

    QProcess killed;
    killed.setProcessEnvironment(env);
    killed.start(QStringLiteral(EVENLOUD_CLI), {"-o", tmp.filePath("out"), input});
    ASSERT_TRUE(killed.waitForStarted(-1));
    QByteArray err;
    ASSERT_TRUE(waitForFileStart(killed, &err)) << err.toStdString();
    // Its first pass reads the input in a worker child: the job is under way.
    fixtures::FileWatch read(input, fixtures::FileWatch::Use::Read);
    ASSERT_TRUE(read.wait());
    killed.kill();
    ASSERT_TRUE(killed.waitForFinished(-1));
    EXPECT_FALSE(QDir(temp).isEmpty());  // what the sweep is for

    const CliRunResult later = runCli({"-o", tmp.filePath("out"), brief}, env);
    ASSERT_EQ(later.exitCode, 0) << later.err.toStdString();
    // The sweep's root stays, empty.
    const QString root = QStringLiteral("evenloud-%1").arg(::geteuid());
    const auto all = QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot;
    const QStringList left = QDir(temp).entryList(all);
    EXPECT_EQ(left, QStringList{root}) << left.join(' ').toStdString();
    const QStringList inRoot = QDir(temp + "/" + root).entryList(all);
    EXPECT_TRUE(inRoot.isEmpty()) << inRoot.join(' ').toStdString();
}

// A file is itself under any spelling, and files that differ only in case
// are two files; the hidden entries of a walked folder, such as the "._"
// sidecars macOS leaves on shared drives, are not audio to process.
TEST_F(CliRun, EachFileOnceWhateverItsSpelling)
{
    const QString in = tmp.filePath("in");
    QDir().mkpath(in);
    ASSERT_FALSE(fixtures::makeWav(in, "Take.wav").isEmpty() || fixtures::makeWav(in, "take.wav").isEmpty()
                 || fixtures::makeWav(in, ".hidden.wav").isEmpty());
    ASSERT_TRUE(fixtures::writeFile(in + "/._Take.wav", QByteArray::fromHex("00051607") + QByteArray(4092, '\0')));
    ASSERT_TRUE(QFile::link(in + "/Take.wav", tmp.filePath("link.wav")));

    const QString out = tmp.filePath("out");
    const CliRunResult r = runCli({"--json", "-o", out, "in", "./in/Take.wav", in + "/Take.wav", "link.wav",
                                   "in/../in/take.wav"},
                                  QProcessEnvironment::systemEnvironment(), tmp.path());
    EXPECT_EQ(r.exitCode, 0) << r.err.toStdString();
    EXPECT_EQ(r.json().size(), 2) << r.out.toStdString();
    EXPECT_EQ(entries(out), (QStringList{"Take.wav", "take.wav"}));

    // Nothing but sidecars: nothing was done, and the run says so.
    QFile::remove(in + "/Take.wav");
    QFile::remove(in + "/take.wav");
    const CliRunResult none = runCli({"-o", out, in});
    EXPECT_EQ(none.exitCode, 1);
    EXPECT_TRUE(none.err.contains("no audio files")) << none.err.toStdString();
}

// A film with a commentary track: each audio stream reaches the target on
// its own, and the streams keep their order, dispositions and languages.
TEST_F(CliRun, EveryAudioStreamIsNormalisedInPlace)
{
    const QString in = tmp.filePath("film.mp4");
    ASSERT_TRUE(fixtures::run("ffmpeg", {"-v", "error", "-f", "lavfi", "-i", "testsrc=size=64x48:rate=10:duration=6",
                                         "-f", "lavfi", "-i", "sine=f=440:d=6,volume=-12dB", "-f", "lavfi", "-i",
                                         "sine=f=660:d=6,volume=-32dB", "-map", "0", "-map", "1", "-map", "2",
                                         "-c:v", "libx264", "-c:a", "aac", "-disposition:a:0", "0",
                                         "-disposition:a:1", "default", "-metadata:s:a:1", "language=deu", in}));
    auto streams = [](const QString &path) {
        QString out;
        fixtures::run("ffprobe", {"-v", "error", "-show_entries",
                                  "stream=codec_type:stream_disposition=default:stream_tags=language",
                                  "-of", "compact", path}, &out);
        return out;
    };
    const QString out = tmp.filePath("out");
    const CliRunResult r = runCli({"--lufs", "-20", "--json", "-o", out, in});
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    const QJsonObject o = r.json().at(0).toObject();
    EXPECT_EQ(o["other_audio_streams"].toArray().size(), 1) << r.out.toStdString();
    const QString result = out + "/film.mp4";
    EXPECT_EQ(streams(result), streams(in));
    for (int stream : {0, 1})
        EXPECT_NEAR(fixtures::measureLoudness(result, stream).integrated, -20.0, 0.5) << stream;
}

// Another local user may plant links where temporary files go; none is
// followed, and what they point at stays as it was.
TEST_F(CliRun, PlantedLinksAreNeverFollowed)
{
    const QString input = fixtures::makeWav(tmp.path(), "song.wav", 2);
    ASSERT_FALSE(input.isEmpty());
    const QString victim = tmp.filePath("victim");
    QDir().mkpath(victim);
    const QString shared = tmp.filePath("shared-tmp");
    QDir().mkpath(shared);
    ASSERT_TRUE(QFile::link(victim, shared + QStringLiteral("/evenloud-%1").arg(::geteuid())));
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("TMPDIR", shared);
    const CliRunResult r = runCli({"--json", "-o", tmp.filePath("out"), input}, env);
    EXPECT_EQ(r.exitCode, 1) << r.err.toStdString();
    EXPECT_TRUE(r.out.contains("Cannot create a temporary file")) << r.out.toStdString();
    EXPECT_TRUE(QDir(victim).isEmpty()) << entries(victim).join(' ').toStdString();
    EXPECT_TRUE(QDir(tmp.filePath("out")).isEmpty());
}

// A decoder taken over by a crafted file is caged: a network socket or a
// program started kills its process, a file outside its grant stays closed
// to it; that file fails with the reason and the rest of the batch goes on.
TEST_F(CliRun, WorkerThatTriesToBreakOutFailsItsFileAlone)
{
    QStringList inputs;
    for (const char *name : {"good.wav", "socket.wav", "exec.wav", "open.wav"}) {
        inputs << fixtures::makeWav(tmp.path(), name);
        ASSERT_FALSE(inputs.last().isEmpty());
    }
    const QString victim = tmp.filePath("victim.txt");
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("EVENLOUD_WORKER_ESCAPE_ON", "socket@socket.wav,exec@exec.wav,open:" + victim + "@open.wav");
    const CliRunResult r = runCli(QStringList{"--json", "-o", tmp.filePath("out")} + inputs, env);
    EXPECT_EQ(r.exitCode, 1) << r.err.toStdString();
    QMap<QString, QString> reasons;
    for (const QJsonValue &v : r.json())
        reasons[QFileInfo(v["input"].toString()).fileName()] = v["result"].toString() + ": " + v["reason"].toString();
    EXPECT_EQ(reasons["good.wav"], "ok: ");
    EXPECT_TRUE(reasons["socket.wav"].contains("tried to leave its sandbox")) << reasons["socket.wav"].toStdString();
    EXPECT_TRUE(reasons["exec.wav"].contains("tried to leave its sandbox")) << reasons["exec.wav"].toStdString();
    EXPECT_TRUE(reasons["open.wav"].startsWith("failed: open refused")) << reasons["open.wav"].toStdString();
    EXPECT_FALSE(QFile::exists(victim));
}

// A disk that fills up on one file fails that file with the reason, and
// frees what it took: the files after it, on the same disk, still succeed.
TEST_F(CliRun, FullDiskFailsOnlyTheFileThatFilledIt)
{
    const QString big = fixtures::makeWav(tmp.path(), "big.wav", 60);     // 10.6 MB
    const QString small1 = fixtures::makeWav(tmp.path(), "small1.wav", 5); // 0.9 MB
    const QString small2 = fixtures::makeWav(tmp.path(), "small2.wav", 5);
    ASSERT_FALSE(big.isEmpty() || small1.isEmpty() || small2.isEmpty());
    const QString small = tmp.filePath("small"), out = tmp.filePath("out");
    QDir().mkpath(small);
    if (::geteuid() != 0 || !fixtures::run("mount", {"-t", "tmpfs", "-o", "size=3m", "tmpfs", small}))
        GTEST_SKIP() << "needs to mount a small file system";
    struct Unmount {
        QString path;
        ~Unmount() { fixtures::run("umount", {"-l", path}); }
    } unmount{small};

    // The disk that fills is first the temporary folder, then the output folder.
    for (const bool fullTemp : {true, false}) {
        SCOPED_TRACE(fullTemp ? "temporary folder" : "output folder");
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        if (fullTemp)
            env.insert("TMPDIR", small);
        const QString folder = fullTemp ? out : small;
        // One job at a time, the longest first: the big file fills the disk
        // before the small ones start.
        const CliRunResult r = runCli({"--json", "--jobs", "1", "-o", folder, small1, big, small2}, env);
        EXPECT_EQ(r.exitCode, 1) << r.err.toStdString();
        for (const QJsonValue &v : r.json()) {
            const QJsonObject o = v.toObject();
            const bool isBig = o["input"].toString() == big;
            EXPECT_EQ(o["result"].toString(), isBig ? "failed" : "ok") << r.out.toStdString();
            if (isBig) {
                EXPECT_TRUE(o["reason"].toString().contains("No space left on device")) << r.out.toStdString();
            }
        }
        EXPECT_EQ(entries(folder), (QStringList{"small1.wav", "small2.wav"}));
        for (const QString &name : entries(folder))
            QFile::remove(QDir(folder).filePath(name));
    }
}

// A stretch of garbage in the middle of an AC-3 file makes its decoder
// answer with codes of its own; like a player, the run skips those frames
// and normalises the rest, as the first pass measured it.
TEST_F(CliRun, CorruptFramesAreSkippedAsAPlayerSkipsThem)
{
    const QString path = fixtures::makeAudio(tmp.path(), "broken.ac3", 6, {"-c:a", "ac3", "-b:a", "192k"});
    ASSERT_FALSE(path.isEmpty());
    QByteArray bytes = fixtures::readFile(path);
    std::mt19937 random(7);
    for (qsizetype i = bytes.size() / 3; i < bytes.size() / 3 + 8000; ++i)
        bytes[i] = char(random());
    ASSERT_TRUE(fixtures::writeFile(path, bytes));
    const CliRunResult r = runCli({"--json", "--lufs", "-20", "-o", tmp.filePath("out"), path});
    ASSERT_EQ(r.exitCode, 0) << r.out.toStdString() << r.err.toStdString();
    const QJsonObject o = r.json().at(0).toObject();
    EXPECT_EQ(o["result"].toString(), "ok") << o["reason"].toString().toStdString();
    const fixtures::Loudness out = fixtures::measureLoudness(o["output"].toString());
    ASSERT_TRUE(out.ok);
    EXPECT_NEAR(out.integrated, -20.0, 0.5);
}

// Mutated copies of every format (fixed seeds): whatever a damaged file does
// to a codec, the run ends on its own, reports every file, and says why each
// failure failed.
TEST_F(CliRun, DamagedFilesOfEveryFormatFailWithReasons)
{
    QStringList inputs;
    quint32 seed = 1;
    for (const fixtures::Format &f : fixtures::formats()) {
        const QString clean = fixtures::makeFormat(tmp.path(), f.variant, 1.0);
        ASSERT_FALSE(clean.isEmpty()) << f.variant.toStdString();
        const QByteArray bytes = fixtures::readFile(clean);
        for (int copy = 0; copy < 3; ++copy) {
            std::mt19937 random(seed++);
            QByteArray damaged = bytes;
            // A few bytes anywhere past the first, or a burst in the middle.
            const int flips = 1 + int(random() % 24);
            for (int i = 0; i < flips; ++i)
                damaged[1 + qsizetype(random() % quint32(damaged.size() - 1))] = char(random());
            if (copy == 2)
                damaged.replace(damaged.size() / 2, std::min<qsizetype>(512, damaged.size() / 4), QByteArray(512, '\xff'));
            const QString path = tmp.filePath(QStringLiteral("%1-%2.%3").arg(f.variant).arg(copy).arg(f.ext));
            ASSERT_TRUE(fixtures::writeFile(path, damaged));
            inputs << path;
        }
    }
    const CliRunResult r = runCli(QStringList{"--json", "-o", tmp.filePath("out")} + inputs);
    ASSERT_TRUE(r.exitCode == 0 || r.exitCode == 1) << r.exitCode << r.err.toStdString();
    const QJsonArray results = r.json();
    EXPECT_EQ(results.size(), inputs.size()) << r.out.toStdString();
    for (const QJsonValue &v : results) {
        const QJsonObject o = v.toObject();
        if (o["result"] != "ok" && o["result"] != "one-pass") {
            EXPECT_FALSE(o["reason"].toString().isEmpty()) << o["input"].toString().toStdString();
        }
    }
}

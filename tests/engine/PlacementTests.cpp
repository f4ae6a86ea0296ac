#include "EngineTestUtil.h"

#include "engine/VXAudioGain.h"
#include "engine/VXPlacement.h"
#include "engine/VXTempDir.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <optional>
#include <gtest/gtest.h>
#include <latch>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <thread>
#include <unistd.h>

using namespace enginetest;

namespace {

bool writeFile(const QString &path, const QByteArray &content)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(content) == content.size();
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QStringList hiddenEntries(const QString &folder)
{
    return QDir(folder).entryList(QDir::Hidden | QDir::Files | QDir::NoDotAndDotDot).filter(QStringLiteral(".evenloud-"));
}

} // namespace

TEST(Placement, ConcurrentJobsNeverShareOrOverwrite)
{
    QTemporaryDir src, out;
    const QString existing = QDir(out.path()).filePath(QStringLiteral("song.mp3"));
    ASSERT_TRUE(writeFile(existing, "the user's own file"));

    constexpr int kJobs = 8;
    QStringList sources;
    for (int i = 0; i < kJobs; ++i) {
        sources << QDir(src.path()).filePath(QStringLiteral("t%1.mp3").arg(i));
        ASSERT_TRUE(writeFile(sources.last(), QByteArray("result ") + QByteArray::number(i)));
    }
    // All threads ask for the same names at the same moment, as jobs of
    // files called song.mp3 in different folders would.
    std::latch start(kJobs);
    std::vector<std::optional<VXPlacement::Result>> results(kJobs);
    QStringList temps(kJobs);
    std::vector<std::thread> threads;
    for (int i = 0; i < kJobs; ++i) {
        threads.emplace_back([&, i] {
            start.arrive_and_wait();
            temps[i] = VXTempDir::reserveFile(QStringLiteral("song"), QStringLiteral("mp3"));
            results[i] = VXPlacement::placeInFolder(sources[i], out.path(), QStringLiteral("song"), QStringLiteral("mp3"));
        });
    }
    for (auto &t : threads)
        t.join();
    EXPECT_EQ(QSet<QString>(temps.begin(), temps.end()).size(), kJobs);

    QSet<QString> paths;
    for (int i = 0; i < kJobs; ++i) {
        ASSERT_TRUE(results[i] && results[i]->ok()) << qPrintable(results[i]->reason());
        EXPECT_TRUE((*results[i])->path.endsWith(QLatin1String(".mp3")));
        EXPECT_EQ(readFile((*results[i])->path), QByteArray("result ") + QByteArray::number(i));
        EXPECT_FALSE(QFile::exists(sources[i]));
        paths.insert((*results[i])->path);
    }
    EXPECT_EQ(paths.size(), kJobs);
    EXPECT_EQ(readFile(existing), QByteArray("the user's own file"));
    EXPECT_TRUE(hiddenEntries(out.path()).isEmpty());

    // The new files are readable like any other file of the user's, even
    // though the job's temporary files are private.
    struct stat st {};
    ASSERT_EQ(::stat(QFile::encodeName((*results[0])->path).constData(), &st), 0);
    const mode_t mask = ::umask(022);
    ::umask(mask);
    EXPECT_EQ(st.st_mode & 0777, 0666 & ~mask);
}

TEST(Placement, ReplaceKeepsPermissionsAndLeavesNothingBehind)
{
    QTemporaryDir dir;
    const QString target = QDir(dir.path()).filePath(QStringLiteral("orig.flac"));
    ASSERT_TRUE(writeFile(target, "original"));
    ASSERT_EQ(::chmod(QFile::encodeName(target).constData(), 0640), 0);
    // A link to the input is followed, not replaced by a file.
    const QString link = QDir(dir.path()).filePath(QStringLiteral("link.flac"));
    ASSERT_TRUE(QFile::link(target, link));

    for (const QString &path : {target, link}) {
        const QString temp = VXTempDir::reserveFile(QStringLiteral("orig"), QStringLiteral("flac"));
        ASSERT_TRUE(writeFile(temp, "result via " + path.toUtf8()));
        const VXPlacement::Result r = VXPlacement::replaceFile(temp, path);
        ASSERT_TRUE(r.ok()) << qPrintable(r.reason());
        EXPECT_EQ(readFile(target), "result via " + path.toUtf8());
        EXPECT_FALSE(QFile::exists(temp));
        struct stat st {};
        ASSERT_EQ(::stat(QFile::encodeName(target).constData(), &st), 0);
        EXPECT_EQ(st.st_mode & 07777, 0640u);
    }
    EXPECT_TRUE(QFileInfo(link).isSymLink());
    EXPECT_TRUE(hiddenEntries(dir.path()).isEmpty());

    // Extended attributes stay (where the file system has them), the
    // modification time when asked, and other hard links are told of.
    const QByteArray native = QFile::encodeName(target);
    const bool xattrs = ::setxattr(native.constData(), "user.evenloud.test", "kept", 4, 0) == 0;
    const struct timespec old[2] = {{1000000000, 0}, {1000000000, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, native.constData(), old, 0), 0);
    const QString second = QDir(dir.path()).filePath(QStringLiteral("second.flac"));
    ASSERT_EQ(::link(native.constData(), QFile::encodeName(second).constData()), 0);
    const QString temp = VXTempDir::reserveFile(QStringLiteral("orig"), QStringLiteral("flac"));
    ASSERT_TRUE(writeFile(temp, "kept as it was"));
    const VXPlacement::Result r = VXPlacement::replaceFile(temp, target, true);
    ASSERT_TRUE(r.ok()) << qPrintable(r.reason());
    struct stat st {};
    ASSERT_EQ(::stat(native.constData(), &st), 0);
    EXPECT_EQ(st.st_mtime, 1000000000);
    EXPECT_TRUE(r->warning.contains("hard links")) << r->warning.toStdString();
    char value[8] = {};
    if (xattrs) {
        EXPECT_EQ(::getxattr(native.constData(), "user.evenloud.test", value, sizeof value), 4);
        EXPECT_STREQ(value, "kept");
    }
}

TEST(Placement, ReplaceFailuresLeaveTheInputUntouched)
{
    QTemporaryDir dir;
    const QString sub = QDir(dir.path()).filePath(QStringLiteral("sub"));
    ASSERT_TRUE(QDir().mkpath(sub));
    const QString wav = makeWav(sub, QStringLiteral("keep.wav"), 0.2);
    const QByteArray original = readFile(wav);
    VXError error;
    auto item = VXAudioGain::initWithFile(wav, QString(), &error);
    ASSERT_TRUE(item);
    item->setReplaceOriginalFile(true);

    // A folder where the input cannot be removed. Root ignores the mode bits.
    if (::geteuid() != 0) {
        const QString temp = VXTempDir::reserveFile(QStringLiteral("keep"), QStringLiteral("wav"));
        ASSERT_TRUE(writeFile(temp, "result"));
        ASSERT_EQ(::chmod(QFile::encodeName(sub).constData(), 0555), 0);
        LogCapture log;
        EXPECT_FALSE(item->moveTempFileToFinalOut(temp));
        ::chmod(QFile::encodeName(sub).constData(), 0755);
        ASSERT_EQ(log.lines().size(), 1);
        EXPECT_TRUE(log.lines()[0].startsWith(QLatin1String("Failed to replace original file.Can't remove original file(")));
        EXPECT_TRUE(log.lines()[0].contains(QLatin1String("Permission denied")));
        EXPECT_EQ(readFile(wav), original);
        EXPECT_TRUE(QFile::exists(temp));
    }

    // The input's folder has vanished.
    const QString moved = QDir(dir.path()).filePath(QStringLiteral("moved"));
    ASSERT_TRUE(QDir().rename(sub, moved));
    const QString temp = VXTempDir::reserveFile(QStringLiteral("keep"), QStringLiteral("wav"));
    LogCapture log;
    EXPECT_FALSE(item->moveTempFileToFinalOut(temp));
    ASSERT_EQ(log.lines().size(), 1);
    EXPECT_TRUE(log.lines()[0].startsWith(QLatin1String("Failed to replace original file.Can't remove original file(")))
        << qPrintable(log.lines()[0]);
    EXPECT_EQ(readFile(QDir(moved).filePath(QStringLiteral("keep.wav"))), original);
    EXPECT_TRUE(QFile::exists(temp));
}

TEST(Placement, KilledMidReplaceLeavesOriginalOrResult)
{
    // On a RAM file system when there is one, so the result crosses file
    // systems and is copied next to the input before the swap.
    const bool shm = QFileInfo(QStringLiteral("/dev/shm")).isWritable();
    QTemporaryDir dir((shm ? QStringLiteral("/dev/shm") : QDir::tempPath()) + QStringLiteral("/evenloud-test-XXXXXX"));
    ASSERT_TRUE(dir.isValid());
    // Big enough that a kill often lands inside the copy and the sync.
    QByteArray a(4 << 20, 'A'), b(4 << 20, 'B');
    const QString contentA = QDir(dir.path()).filePath(QStringLiteral("a.bin"));
    const QString contentB = QDir(dir.path()).filePath(QStringLiteral("b.bin"));
    const QString target = QDir(dir.path()).filePath(QStringLiteral("input.wav"));
    ASSERT_TRUE(writeFile(contentA, a) && writeFile(contentB, b) && writeFile(target, a));

    for (int round = 0; round < 12; ++round) {
        QProcess helper;
        helper.start(QStringLiteral(ENGINE_TEST_HELPER),
                     {QStringLiteral("replace-loop"), target, contentA, contentB});
        ASSERT_TRUE(helper.waitForStarted(30000));
        ASSERT_TRUE(helper.waitForReadyRead(60000));  // first replacement done
        // Where the kill lands is random on purpose; the check does not
        // depend on it.
        QThread::msleep(QRandomGenerator::global()->bounded(40));
        helper.kill();
        ASSERT_TRUE(helper.waitForFinished(30000));
        const QByteArray now = readFile(target);
        ASSERT_TRUE(now == a || now == b) << "round " << round << ": " << now.size() << " bytes";
    }
}

TEST(Placement, CleanCacheSparesALiveProcessAndSweepsADeadOne)
{
    QProcess other;
    other.start(QStringLiteral(ENGINE_TEST_HELPER), {QStringLiteral("hold-temp")});
    ASSERT_TRUE(other.waitForStarted(30000));
    ASSERT_TRUE(other.waitForReadyRead(30000));
    const QString otherFile = QString::fromUtf8(other.readLine()).trimmed();
    ASSERT_TRUE(QFile::exists(otherFile)) << qPrintable(otherFile);

    const QString mine = VXAudioGain::temporaryDirectory();
    ASSERT_FALSE(mine.isEmpty());
    QFileInfo info(mine);
    EXPECT_EQ(info.permissions() & (QFile::ReadGroup | QFile::ReadOther | QFile::WriteOther), 0);
    ASSERT_TRUE(writeFile(QDir(mine).filePath(QStringLiteral("left.wav")), "x"));

    VXAudioGain::cleanCache();
    EXPECT_FALSE(QFileInfo::exists(mine));
    EXPECT_TRUE(QFile::exists(otherFile));

    // Used again after a clean: the directory comes back, empty.
    const QString again = VXAudioGain::temporaryDirectory();
    EXPECT_TRUE(QFileInfo(again).isDir());
    EXPECT_TRUE(QDir(again).isEmpty());

    other.kill();  // dies without cleaning up
    ASSERT_TRUE(other.waitForFinished(30000));
    VXAudioGain::cleanCache();
    EXPECT_FALSE(QFileInfo::exists(QFileInfo(otherFile).path()));
    EXPECT_FALSE(QFileInfo::exists(again));
}

// What a killed placement leaves beside the user's files goes with the next
// placement there; what a live placement holds, or has just written, stays.
TEST(Placement, StaleStagingFilesAreSweptLiveOnesKept)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString stale = dir.filePath(".song.mp3.evenloud-Ab3dE9");
    const QString held = dir.filePath(".take.wav.evenloud-Zz81qQ");
    const QString fresh = dir.filePath(".new.flac.evenloud-k2L0pX");
    const QString unrelated = dir.filePath(".notes.evenloud-old");
    for (const QString &p : {stale, held, fresh, unrelated})
        ASSERT_TRUE(writeFile(p, "partial"));
    const struct timespec hourAgo[2] = {{::time(nullptr) - 3600, 0}, {::time(nullptr) - 3600, 0}};
    for (const QString &p : {stale, held, unrelated})
        ASSERT_EQ(::utimensat(AT_FDCWD, QFile::encodeName(p).constData(), hourAgo, 0), 0);
    // Just made, by a placement not yet holding its lock: its time is set a
    // little ahead, so that a slow machine cannot age it before the sweep.
    const struct timespec soon[2] = {{::time(nullptr) + 60, 0}, {::time(nullptr) + 60, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, QFile::encodeName(fresh).constData(), soon, 0), 0);
    QFile holder(held);
    ASSERT_TRUE(holder.open(QIODevice::ReadOnly));
    ASSERT_EQ(::flock(holder.handle(), LOCK_EX), 0);  // as a live placement in another process holds it

    QTemporaryDir src;
    const QString result = src.filePath("r.wav");
    ASSERT_TRUE(writeFile(result, "result"));
    const VXPlacement::Result placed = VXPlacement::placeInFolder(result, dir.path(), "r", "wav");
    ASSERT_TRUE(placed.ok()) << placed.reason().toStdString();
    EXPECT_FALSE(QFile::exists(stale));
    EXPECT_TRUE(QFile::exists(held) && QFile::exists(fresh) && QFile::exists(unrelated));
}

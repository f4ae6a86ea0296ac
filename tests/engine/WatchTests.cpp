#include "engine/VXWatchFolder.h"
#include "engine/VXWatchRules.h"
#include "tests/support/Fixtures.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <gtest/gtest.h>

#include <linux/magic.h>
#include <sys/stat.h>
#include <utime.h>

namespace {

// Written in one go and closed: what an exporting program leaves.
bool writeFile(const QString &path, const QByteArray &content = QByteArray(1000, 'x'))
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(content) == content.size();
}

// The path's modification time an hour back.
bool makeOld(const QString &path)
{
    const struct utimbuf times {::time(nullptr) - 3600, ::time(nullptr) - 3600};
    return ::utime(QFile::encodeName(path).constData(), &times) == 0;
}

QStringList reported(const QSignalSpy &spy)
{
    QStringList paths;
    for (const QList<QVariant> &args : spy)
        paths << args.at(0).toString();
    return paths;
}

bool waitForReport(const QSignalSpy &spy, const QString &path)
{
    return fixtures::waitFor([&] { return reported(spy).contains(path); }, 30000);
}

} // namespace

// Temporaries of editors and downloaders, backups and unknown types are
// never taken; only a network or user-space file system lacks close events.
TEST(WatchRules, NamesAndFileSystems)
{
    for (const char *name : {"take.wav", "Take Two.MP3", "a.b.flac"})
        EXPECT_TRUE(VXWatchRules::isCandidateName(QString::fromUtf8(name))) << name;
    for (const char *name : {".take.wav", ".take.wav.Xy12Ab", "take.wav.part", "take.wav~", "#take.wav#",
                             "~$take.wav", "take.wav.crdownload", "take.wav.!qB", "notes.txt", ""})
        EXPECT_FALSE(VXWatchRules::isCandidateName(QString::fromUtf8(name))) << name;
    for (const qint64 local : {0xEF53LL, qint64(TMPFS_MAGIC), qint64(BTRFS_SUPER_MAGIC), qint64(OVERLAYFS_SUPER_MAGIC)})
        EXPECT_TRUE(VXWatchRules::typeGivesCloseEvents(local)) << std::hex << local;
    for (const qint64 remote : {qint64(NFS_SUPER_MAGIC), qint64(CIFS_SUPER_MAGIC), qint64(SMB2_SUPER_MAGIC),
                                qint64(FUSE_SUPER_MAGIC), qint64(V9FS_MAGIC)})
        EXPECT_FALSE(VXWatchRules::typeGivesCloseEvents(remote)) << std::hex << remote;
    // One journal per pair of folders, wherever they are named from.
    const QString a = VXWatchRules::defaultJournalPath("/srv/in", "/srv/out");
    EXPECT_EQ(a, VXWatchRules::defaultJournalPath("/srv/x/../in/", "/srv/out"));
    EXPECT_NE(a, VXWatchRules::defaultJournalPath("/srv/in", QString()));
    EXPECT_TRUE(QFileInfo(a).fileName().startsWith("watch-in-")) << a.toStdString();
}

// A file counts as written once it has looked the same for the settle time:
// any change starts the wait again, and a vanished file is forgotten.
TEST(WatchRules, SettleTrackerWaitsForStillness)
{
    VXSettleTracker tracker(5000);
    VXFileId id;
    id.size = 100;
    id.mtimeNs = 1;
    EXPECT_FALSE(tracker.observe("a", id, 0));
    EXPECT_FALSE(tracker.observe("a", id, 4999));
    VXFileId grown = id;
    grown.size = 200;
    EXPECT_FALSE(tracker.observe("a", grown, 3000));
    EXPECT_FALSE(tracker.observe("a", grown, 7999));
    EXPECT_TRUE(tracker.observe("a", grown, 8000));
    EXPECT_TRUE(tracker.isEmpty());  // reported once: it starts over if seen again
    EXPECT_FALSE(tracker.observe("a", grown, 9000));
    EXPECT_FALSE(tracker.observe("a", VXFileId(), 20000));
    EXPECT_TRUE(tracker.isEmpty());
}

class WatchFolder : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(tmp.isValid()); }
    QString path(const QString &name) const { return QDir::cleanPath(tmp.filePath(name)); }
    QTemporaryDir tmp;
};

// With close events: old files at once at the start, then each file when its
// writer closes it or it is moved in, under its final name, new sub-folders
// included; never one still open, a temporary name, or what lies in an
// excluded folder.
TEST_F(WatchFolder, ReportsEachFileOnceItIsComplete)
{
    ASSERT_TRUE(QDir().mkpath(path("out")) && QDir().mkpath(path("old")));
    for (const QString &name : {QStringLiteral("old/b.wav"), QStringLiteral("a.wav"), QStringLiteral(".hidden.wav")})
        ASSERT_TRUE(writeFile(path(name)) && makeOld(path(name)));
    VXWatchFolder::Options options;
    options.recursive = true;
    options.settleMsecs = 1000;
    options.excluded << path("out");
    VXWatchFolder watch(tmp.path(), options);
    QSignalSpy spy(&watch, &VXWatchFolder::fileReady);
    ASSERT_TRUE(watch.start());
    EXPECT_EQ(watch.scannedFolderCount(), 0) << "a local disk is watched, not scanned";
    EXPECT_EQ(reported(spy), (QStringList{path("a.wav"), path("old/b.wav")}));
    spy.clear();

    QFile slow(path("slow.wav"));
    ASSERT_TRUE(slow.open(QIODevice::WriteOnly));
    ASSERT_EQ(slow.write(QByteArray(4096, 'a')), 4096);
    ASSERT_TRUE(slow.flush());
    ASSERT_TRUE(writeFile(path("out/result.wav")));
    ASSERT_TRUE(writeFile(path("part.wav.part")));
    ASSERT_TRUE(writeFile(path("backup.wav~")));
    // Events come in order: once this one is in, the earlier ones were seen.
    ASSERT_TRUE(writeFile(path("first.wav")));
    ASSERT_TRUE(waitForReport(spy, path("first.wav")));
    EXPECT_EQ(reported(spy), QStringList{path("first.wav")});

    ASSERT_EQ(slow.write(QByteArray(4096, 'b')), 4096);
    slow.close();
    ASSERT_TRUE(waitForReport(spy, path("slow.wav")));
    ASSERT_TRUE(QFile::rename(path("part.wav.part"), path("part.wav")));
    ASSERT_TRUE(QDir().mkpath(path("new/deeper")));
    ASSERT_TRUE(writeFile(path("new/deeper/c.wav")));
    ASSERT_TRUE(waitForReport(spy, path("new/deeper/c.wav")));
    EXPECT_EQ(reported(spy),
              (QStringList{path("first.wav"), path("slow.wav"), path("part.wav"), path("new/deeper/c.wav")}));
}

// Without close events the folder is scanned: a file is reported once it
// has been still, once only while it stays as it is, and again when it
// changes. The watch ends when its folder goes.
TEST_F(WatchFolder, ScansWhereNoCloseEventsCome)
{
    VXWatchFolder::Options options;
    options.settleMsecs = 1000;
    options.scanOnly = true;
    const QString root = path("in");
    ASSERT_TRUE(QDir().mkpath(root));
    VXWatchFolder watch(root, options);
    QSignalSpy spy(&watch, &VXWatchFolder::fileReady);
    QSignalSpy lost(&watch, &VXWatchFolder::lost);
    ASSERT_TRUE(watch.start());
    EXPECT_EQ(watch.scannedFolderCount(), 1);
    ASSERT_TRUE(writeFile(root + "/a.wav"));
    ASSERT_TRUE(waitForReport(spy, root + "/a.wav"));
    // Scans go on; b sorts after a, so a was seen again before b was reported.
    ASSERT_TRUE(writeFile(root + "/b.wav"));
    ASSERT_TRUE(waitForReport(spy, root + "/b.wav"));
    EXPECT_EQ(reported(spy), (QStringList{root + "/a.wav", root + "/b.wav"}));
    ASSERT_TRUE(writeFile(root + "/a.wav", QByteArray(2000, 'y')));
    ASSERT_TRUE(fixtures::waitFor([&] { return spy.size() == 3; }, 30000));
    EXPECT_EQ(reported(spy).last(), root + "/a.wav");

    ASSERT_TRUE(QDir(root).removeRecursively());
    ASSERT_TRUE(fixtures::waitFor([&] { return lost.size() == 1; }, 30000));
    EXPECT_FALSE(watch.isWatching());
}

#include "engine/VXImport.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <atomic>

namespace {

void touch(const QString &path)
{
    QFile f(path);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly)) << path.toStdString();
}

QStringList walkAll(const QStringList &paths, bool recursive, bool skipHidden = false)
{
    std::atomic<bool> cancel{false};
    QStringList files;
    VXImport::walk(paths, recursive, cancel, [&](const QString &f) { files << f; }, skipHidden);
    return files;
}

QStringList under(const QString &root, const QStringList &names)
{
    QStringList paths;
    for (const QString &name : names)
        paths << root + QLatin1Char('/') + name;
    return paths;
}

class ImportWalk : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(tmp.isValid());
        root = tmp.path();
        // Enough names that a file system's hash order differs from sorted.
        const QStringList names = {"zeta.mp3", "alpha.wav", "Mid.FLAC", "notes.txt", "noext",
                                   ".hidden.mp3", "b.ogg", "c.m4a", "k.mp3x", "q.wma"};
        for (const QString &n : names)
            touch(root + "/" + n);
        QDir(root).mkpath("sub/deeper");
        QDir(root).mkpath("another");
        touch(root + "/sub/s1.mp3");
        touch(root + "/sub/s2.ac3");
        touch(root + "/sub/deeper/d.mp2");
        touch(root + "/another/a.mov");
    }
    QTemporaryDir tmp;
    QString root;
};

} // namespace

TEST(ImportRules, ExtensionTest)
{
    struct Case {
        const char *path;
        bool passes;
    } cases[] = {
        {"/a/song.mp3", true},         {"/a/SONG.MP3", true},      {"/a/x.Mp3", true},
        {"/a/song.mp3x", false},       {"/a/song.xmp3", false},    {"/a/song", false},
        {"/a/song.", false},           {"/a/.hidden.mp3", true},   {"/a/.mp3", true},
        {"/a.mp3/song", false},        {"/a/b.tar.flac", true},    {"/a/b.flac.txt", false},
        {"relative.OGG", true},        {"", false},                {"/a/b.wav ", false},
        {"/a/ünïcødé.m4v", true},
    };
    for (const Case &c : cases)
        EXPECT_EQ(VXImport::passesExtensionTest(QString::fromUtf8(c.path)), c.passes) << c.path;
}

TEST(ImportRules, DuplicatesByCaseOnly)
{
    EXPECT_TRUE(VXImport::isSameInput("/Music/Song.MP3", "/music/song.mp3"));
    EXPECT_TRUE(VXImport::isSameInput("/a/Ä.mp3", "/a/ä.mp3"));
    // Paths are compared as given: no resolving of "..", "./" or a trailing slash.
    EXPECT_FALSE(VXImport::isSameInput("/a/../a/s.mp3", "/a/s.mp3"));
    EXPECT_FALSE(VXImport::isSameInput("/a/./s.mp3", "/a/s.mp3"));
    EXPECT_FALSE(VXImport::isSameInput("/a/s.mp3/", "/a/s.mp3"));
    EXPECT_EQ(VXImport::inputKey("/Music/Song.MP3"), VXImport::inputKey("/music/song.mp3"));
}

TEST_F(ImportWalk, NameOrderOneLevelAndDepthFirst)
{
    // Case aside, whatever order the file system lists them in; the hidden
    // .mp3 counts, .txt/.mp3x/no extension do not.
    const QStringList flat = under(root, {".hidden.mp3", "alpha.wav", "b.ogg", "c.m4a", "Mid.FLAC", "q.wma", "zeta.mp3"});
    const QStringList deep = under(root, {".hidden.mp3", "alpha.wav", "another/a.mov", "b.ogg", "c.m4a", "Mid.FLAC",
                                          "q.wma", "sub/deeper/d.mp2", "sub/s1.mp3", "sub/s2.ac3", "zeta.mp3"});
    EXPECT_EQ(walkAll({root}, false), flat);
    EXPECT_EQ(walkAll({root}, true), deep);
    // A trailing slash does not double the separator.
    EXPECT_EQ(walkAll({root + "/"}, false), flat);
    EXPECT_EQ(walkAll({root}, true, true), deep.mid(1));

    // Names equal but for case come in one order, not the file system's.
    QTemporaryDir other;
    for (const char *name : {"b.wav", "B.wav", "a.WAV"})
        touch(other.path() + "/" + name);
    EXPECT_EQ(walkAll({other.path()}, false), under(other.path(), {"a.WAV", "B.wav", "b.wav"}));
}

TEST_F(ImportWalk, TopLevelPathsInGivenOrderMissingSkipped)
{
    const QStringList got = walkAll({root + "/zeta.mp3", root + "/gone.mp3", root + "/notes.txt",
                                     root + "/sub", root + "/alpha.wav"},
                                    false);
    EXPECT_EQ(got, under(root, {"zeta.mp3", "sub/s1.mp3", "sub/s2.ac3", "alpha.wav"}));
}

TEST_F(ImportWalk, LinksFollowedAndLoopsEnd)
{
    // A link back to the root and a link to a sibling folder: every file once.
    ASSERT_TRUE(QFile::link(root, root + "/sub/deeper/loop"));
    ASSERT_TRUE(QFile::link(root + "/alpha.wav", root + "/another/linked.wav"));
    ASSERT_TRUE(QFile::link(root + "/nowhere", root + "/dangling.mp3"));
    const QStringList got = walkAll({root}, true);
    EXPECT_EQ(got.size(), 12); // the 11 files plus the file link; the dangling one skipped
    EXPECT_EQ(QSet<QString>(got.begin(), got.end()).size(), got.size());
    EXPECT_TRUE(got.contains(root + "/another/linked.wav"));
    for (const QString &f : got)
        EXPECT_FALSE(f.contains("/loop/")) << f.toStdString();
}

TEST_F(ImportWalk, CancelStopsAtEveryLevel)
{
    // Cancel from inside the callback on the first file of the deepest folder:
    // nothing more is handed on, not even the rest of the top-level list.
    std::atomic<bool> cancel{false};
    QStringList files;
    VXImport::walk({root + "/sub", root + "/zeta.mp3"}, true, cancel, [&](const QString &f) {
        files << f;
        if (f.contains("/deeper/"))
            cancel = true;
    });
    ASSERT_FALSE(files.isEmpty());
    EXPECT_TRUE(files.last().endsWith("/deeper/d.mp2"));
    EXPECT_FALSE(files.contains(root + "/zeta.mp3"));

    // Cancelled before starting: the first top-level file is still handed on
    // (the check comes after each path), folders yield nothing.
    files.clear();
    VXImport::walk({root + "/zeta.mp3", root + "/alpha.wav"}, true, cancel,
                   [&](const QString &f) { files << f; });
    EXPECT_EQ(files, QStringList{root + "/zeta.mp3"});
    files.clear();
    VXImport::walk({root}, true, cancel, [&](const QString &f) { files << f; });
    EXPECT_TRUE(files.isEmpty());
}

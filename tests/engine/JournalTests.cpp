#include "engine/VXJournal.h"
#include "engine/VXPlacement.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <gtest/gtest.h>

#include <thread>

namespace {

bool writeFile(const QString &path, const QByteArray &content)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(content) == content.size();
}

int doneLines(const QString &journal)
{
    QFile file(journal);
    if (!file.open(QIODevice::ReadOnly))
        return -1;
    return int(file.readAll().count("\"e\":\"done\""));
}

class Journal : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(tmp.isValid());
        input = tmp.filePath("in.wav");
        ASSERT_TRUE(writeFile(input, "original"));
        journalPath = tmp.filePath("state/run.journal");
    }
    std::shared_ptr<VXJournal> open(const QString &key = QStringLiteral("gain;-16"))
    {
        auto journal = VXJournal::open(journalPath, key);
        return journal ? *journal : nullptr;
    }
    QTemporaryDir tmp;
    QString input;
    QString journalPath;
};

} // namespace

// A finished file counts as done while it is as that run left it: the input
// untouched (its result went elsewhere), or the result that replaced it.
// Edited since, or done with other settings, it is done again.
TEST_F(Journal, DoneWhileTheFileIsAsTheRunLeftIt)
{
    const QString other = tmp.filePath("other.wav");
    const QString replaced = tmp.filePath("replaced.wav");
    ASSERT_TRUE(writeFile(other, "other") && writeFile(replaced, "before"));
    {
        auto journal = open();
        ASSERT_TRUE(journal);
        EXPECT_FALSE(journal->wasDone(input));
        journal->done(input, VXFileId::of(input), tmp.filePath("out/in.wav"), "linear");
        const VXFileId before = VXFileId::of(replaced);
        ASSERT_TRUE(writeFile(replaced + ".new", "after"));
        ASSERT_TRUE(QFile::remove(replaced) && QFile::rename(replaced + ".new", replaced));
        journal->done(replaced, before, replaced, "linear");
        journal->done(other, VXFileId::of(other), QString(), "skipped");
    }
    // Edited in place: same size, a new modification time.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    ASSERT_TRUE(writeFile(other, "OTHER"));

    auto journal = open();
    ASSERT_TRUE(journal);
    EXPECT_TRUE(journal->wasDone(input));
    EXPECT_TRUE(journal->wasDone(replaced));
    EXPECT_FALSE(journal->wasDone(other));
    EXPECT_EQ(journal->doneCount(), 3);
    journal.reset();

    auto otherSettings = open(QStringLiteral("gain;-23"));
    ASSERT_TRUE(otherSettings);
    EXPECT_FALSE(otherSettings->wasDone(input));
}

// Killed between a publish and its record: the staged file's inode, noted
// before the rename, says whether the rename happened.
TEST_F(Journal, AnInterruptedPublishIsSettledByTheStagedInode)
{
    const QString out = tmp.filePath("out");
    ASSERT_TRUE(QDir().mkpath(out));
    const QString result = tmp.filePath("result.wav");
    ASSERT_TRUE(writeFile(result, "normalised"));
    QString published;
    {
        auto journal = open();
        ASSERT_TRUE(journal);
        const auto placed = VXPlacement::placeInFolder(result, out, "in", "wav", [&](const QString &dest, const VXFileId &staged) {
            return journal->placing(input, VXFileId::of(input), dest, staged);
        });
        ASSERT_TRUE(placed) << placed.reason().toStdString();
        published = placed->path;
        // No done record: the process died here.
    }
    auto journal = open();
    ASSERT_TRUE(journal);
    EXPECT_TRUE(journal->wasDone(input));
    EXPECT_EQ(doneLines(journalPath), 1);
    journal.reset();

    // The publish that never happened: the name is someone else's file.
    ASSERT_TRUE(QFile::remove(published) && writeFile(published, "a file of the user's"));
    const QString second = tmp.filePath("second.wav");
    ASSERT_TRUE(writeFile(second, "x"));
    {
        auto again = open();
        ASSERT_TRUE(again);
        const QString staged = tmp.filePath("staged.wav");
        ASSERT_TRUE(writeFile(staged, "y"));
        EXPECT_TRUE(again->placing(second, VXFileId::of(second), published, VXFileId::of(staged)));
    }
    EXPECT_FALSE(open()->wasDone(second));
}

// A second run on the same journal would take the same files; a kill's cut
// last line is not a record and does not swallow the next one.
TEST_F(Journal, OneRunAtATimeAndACutLineIsIgnored)
{
    auto first = open();
    ASSERT_TRUE(first);
    const auto second = VXJournal::open(journalPath, "gain;-16");
    EXPECT_FALSE(second);
    EXPECT_TRUE(second.reason().contains("in use")) << second.reason().toStdString();
    first.reset();

    QFile file(journalPath);
    ASSERT_TRUE(file.open(QIODevice::Append));
    file.write("{\"e\":\"done\",\"in\":\"" + QFile::encodeName(input) + "\",\"s\":\"gain;-1");
    file.close();
    auto journal = open();
    ASSERT_TRUE(journal);
    EXPECT_FALSE(journal->wasDone(input));
    journal->done(input, VXFileId::of(input), QString(), "skipped");
    journal.reset();
    EXPECT_TRUE(open()->wasDone(input));
}

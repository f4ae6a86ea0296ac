// A cancel reaches a measurement in its worker child at once: the child is
// killed and reaped, and the call returns, where the whole measurement would
// take many seconds more.

#include "EngineTestUtil.h"

#include "engine/VXAlbumBatch.h"
#include "engine/codec/VXCancel.h"
#include "engine/codec/VXLoudnessMeter.h"
#include "tests/support/FileWatch.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QSet>
#include <QTemporaryDir>
#include <chrono>
#include <future>
#include <gtest/gtest.h>
#include <optional>
#include <unistd.h>

using namespace enginetest;
using namespace std::chrono_literals;

namespace {

// Far more than a kill and its reaping take, far less than the 20 s or so
// that measuring longInput() takes.
constexpr auto kPrompt = 3s;

QSet<pid_t> childrenOf(pid_t pid)
{
    QSet<pid_t> pids;
    const QString tasks = QStringLiteral("/proc/%1/task").arg(pid);
    for (const QString &task : QDir(tasks).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile file(tasks + QLatin1Char('/') + task + QStringLiteral("/children"));
        if (!file.open(QIODevice::ReadOnly))
            continue;
        for (const QByteArray &child : file.readAll().simplified().split(' '))
            if (child.toInt() > 0)
                pids.insert(child.toInt());
    }
    return pids;
}

// The codec runs under way: the children of our worker server.
QSet<pid_t> codecRuns()
{
    QSet<pid_t> runs;
    for (const pid_t child : childrenOf(::getpid())) {
        QFile comm(QStringLiteral("/proc/%1/comm").arg(child));
        if (comm.open(QIODevice::ReadOnly) && comm.readAll().trimmed() == "evenloud-worker")
            runs += childrenOf(child);
    }
    return runs;
}

bool gone(const QSet<pid_t> &pids)
{
    for (const pid_t pid : pids)
        if (QFileInfo::exists(QStringLiteral("/proc/%1").arg(pid)))
            return false;
    return true;
}

struct Measured {
    bool ok = false;
    QString why;
};

} // namespace

TEST(MeasureCancel, AFileEndsAtOnceInTheWorker)
{
    ASSERT_FALSE(longInput().isEmpty());
    VXCancel early, late;
    early.cancel();
    for (VXCancel *cancel : {&early, &late}) {
        const bool before = cancel == &early;
        fixtures::FileWatch opened(longInput(), fixtures::FileWatch::Use::Open);
        ASSERT_TRUE(opened.valid());
        const QSet<pid_t> idle = codecRuns();
        std::future<Measured> measuring = std::async(std::launch::async, [cancel] {
            Measured m;
            const VXResult<VXLoudness> measured = VXMeasureFile(longInput(), VXMeasureTruePeak, cancel);
            m.ok = measured.ok();
            m.why = measured.reason();
            return m;
        });
        QSet<pid_t> child;
        QElapsedTimer clock;
        if (!before) {
            ASSERT_TRUE(opened.wait());  // the child is measuring
            child = codecRuns() - idle;
            EXPECT_EQ(child.size(), 1);
            EXPECT_EQ(measuring.wait_for(300ms), std::future_status::timeout);
            clock.start();
            cancel->cancel();
        }
        ASSERT_EQ(measuring.wait_for(kPrompt), std::future_status::ready) << (before ? "cancelled before" : "during");
        if (!before)
            RecordProperty("cancel_to_return_ms", int(clock.elapsed()));
        const Measured m = measuring.get();
        EXPECT_FALSE(m.ok);
        EXPECT_EQ(m.why, QStringLiteral("cancelled"));
        EXPECT_TRUE(gone(child));
    }
}

// The album is measured by its first track to ask, in one child; a track
// waiting for it is let go by its own cancel without stopping the album,
// and the measuring track's cancel stops the child.
TEST(MeasureCancel, AnAlbumEndsAtOnceAndSoDoesATrackWaitingForIt)
{
    ASSERT_FALSE(longInput().isEmpty());
    QTemporaryDir dir;
    const QString first = dir.filePath(QStringLiteral("1.flac"));
    ASSERT_EQ(::link(QFile::encodeName(longInput()).constData(), QFile::encodeName(first).constData()), 0);
    const QString second = makeWav(dir.path(), QStringLiteral("2.wav"), 1.0);
    ASSERT_FALSE(second.isEmpty());
    VXAlbumBatch batch({first, second});
    using Member = VXResult<VXAlbumMember>;
    auto member = [&batch](const QString &path, const VXCancel *cancel) { return batch.member(path, cancel); };
    // Grouped first (by folder: no tags), which opens the files too.
    EXPECT_FALSE(member(dir.filePath(QStringLiteral("elsewhere.wav")), nullptr));

    fixtures::FileWatch opened(first, fixtures::FileWatch::Use::Open);
    ASSERT_TRUE(opened.valid());
    VXCancel measurerCancel, waiterCancel;
    const QSet<pid_t> idle = codecRuns();
    std::future<Member> measurer = std::async(std::launch::async, member, first, &measurerCancel);
    ASSERT_TRUE(opened.wait());  // the album's child is on the first track
    const QSet<pid_t> child = codecRuns() - idle;
    EXPECT_EQ(child.size(), 1);

    std::future<Member> waiter = std::async(std::launch::async, member, second, &waiterCancel);
    EXPECT_EQ(waiter.wait_for(300ms), std::future_status::timeout);  // it waits for the album
    waiterCancel.cancel();
    ASSERT_EQ(waiter.wait_for(kPrompt), std::future_status::ready);
    const Member waited = waiter.get();
    EXPECT_FALSE(waited);
    EXPECT_TRUE(VXIsCancelled(waited.error())) << waited.reason().toStdString();
    EXPECT_EQ(measurer.wait_for(0s), std::future_status::timeout);
    EXPECT_FALSE(gone(child));

    QElapsedTimer clock;
    clock.start();
    measurerCancel.cancel();
    ASSERT_EQ(measurer.wait_for(kPrompt), std::future_status::ready);
    RecordProperty("cancel_to_return_ms", int(clock.elapsed()));
    const Member measured = measurer.get();
    EXPECT_FALSE(measured);
    EXPECT_TRUE(VXIsCancelled(measured.error())) << measured.reason().toStdString();
    EXPECT_TRUE(gone(child));
}

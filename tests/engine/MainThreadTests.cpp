#include "EngineTestUtil.h"

#include "engine/VXMainThread.h"

#include <QThread>
#include <atomic>
#include <gtest/gtest.h>
#include <thread>

TEST(MainThread, HopRunsOnTheMainThreadAndWaits)
{
    EXPECT_TRUE(VXMainThread::isMainThread());
    bool ranHere = false;
    EXPECT_TRUE(VXRunOnMainThread([&] { ranHere = QThread::currentThread() == qApp->thread(); }));
    EXPECT_TRUE(ranHere);  // direct call, no event loop needed

    std::atomic<bool> ranOnMain{false}, returned{false}, result{false};
    std::thread worker([&] {
        result = VXRunOnMainThread([&] { ranOnMain = QThread::currentThread() == qApp->thread(); });
        returned = true;
    });
    ASSERT_TRUE(enginetest::waitFor([&] { return returned.load(); }));
    worker.join();
    EXPECT_TRUE(result);
    EXPECT_TRUE(ranOnMain);
}

TEST(MainThread, ShutdownReleasesWaitersWithoutRunningThem)
{
    // The main thread runs no events until both threads are done, so the hop
    // can only end by being released. Whichever comes first, the hop or the
    // shutdown, the function never runs.
    std::atomic<bool> ran{false}, result{true};
    std::thread worker([&] { result = VXRunOnMainThread([&] { ran = true; }); });
    std::thread stopper([] { VXMainThread::shutdown(); });
    worker.join();
    stopper.join();
    EXPECT_FALSE(result);
    EXPECT_TRUE(VXMainThread::isShutDown());

    std::thread late([&] { result = VXRunOnMainThread([&] { ran = true; }); });
    late.join();
    EXPECT_FALSE(result);

    QCoreApplication::processEvents();  // the abandoned hop's post arrives
    EXPECT_FALSE(ran);
    VXMainThread::resume();
    EXPECT_FALSE(VXMainThread::isShutDown());
}

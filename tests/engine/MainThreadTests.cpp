#include "EngineTestUtil.h"

#include "engine/VXMainThread.h"

#include <atomic>
#include <gtest/gtest.h>
#include <thread>

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
    QCoreApplication::processEvents();  // the abandoned hop's post arrives
    EXPECT_FALSE(ran);

    VXMainThread::resume();
    std::thread again([&] { result = VXRunOnMainThread([&] { ran = true; }); });
    EXPECT_TRUE(enginetest::waitFor([&] { return ran.load(); }));
    again.join();
    EXPECT_TRUE(result);
}

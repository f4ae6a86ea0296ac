#include "engine/VXMainThread.h"

#include <QCoreApplication>
#include <QThread>
#include <QThreadPool>
#include <condition_variable>
#include <memory>
#include <mutex>

namespace {

struct Hop {
    bool running = false;
    bool done = false;
    bool abandoned = false;
};

// One lock and condition for every hop: hops are short, and shutdown must
// reach all the waiters at once. Never destroyed: a thread whose last hop has
// just run may still be leaving the wait when the application exits.
std::mutex &hopLock()
{
    static auto *lock = new std::mutex;
    return *lock;
}
std::condition_variable &hopDone()
{
    static auto *cv = new std::condition_variable;
    return *cv;
}
bool g_shutDown = false;  // under hopLock

} // namespace

bool VXMainThread::isMainThread()
{
    const QCoreApplication *app = QCoreApplication::instance();
    return app && QThread::currentThread() == app->thread();
}

void VXMainThread::shutdown()
{
    std::lock_guard<std::mutex> locker(hopLock());
    g_shutDown = true;
    hopDone().notify_all();
}

void VXMainThread::resume()
{
    std::lock_guard<std::mutex> locker(hopLock());
    g_shutDown = false;
}

bool VXMainThread::isShutDown()
{
    std::lock_guard<std::mutex> locker(hopLock());
    return g_shutDown;
}

namespace {
std::mutex &handover()
{
    static auto *lock = new std::mutex;  // never destroyed, like the hop's lock
    return *lock;
}
} // namespace

void VXStartOnPool(QThreadPool *pool, std::function<void()> task)
{
    std::lock_guard<std::mutex> locker(handover());
    pool->start([task = std::move(task)] {
        { std::lock_guard<std::mutex> ordered(handover()); }
        task();
    });
}

void VXPostTo(QObject *context, std::function<void()> fn)
{
    std::lock_guard<std::mutex> locker(handover());
    QMetaObject::invokeMethod(context, [fn = std::move(fn)] {
        { std::lock_guard<std::mutex> ordered(handover()); }
        fn();
    }, Qt::QueuedConnection);
}

bool VXRunOnMainThread(const std::function<void()> &fn)
{
    QCoreApplication *app = QCoreApplication::instance();
    if (!app)
        return false;
    if (QThread::currentThread() == app->thread()) {
        fn();
        return true;
    }

    auto hop = std::make_shared<Hop>();
    // Posted under the hop's lock, which the main thread takes first: Qt's
    // event queue orders the post before the run with locks ThreadSanitizer
    // cannot see, this one it can.
    std::unique_lock<std::mutex> locker(hopLock());
    if (g_shutDown)
        return false;
    // fn is captured by reference: the waiter below outlives every run of it,
    // because an abandoned hop never starts fn.
    QMetaObject::invokeMethod(
        app,
        [hop, &fn] {
            {
                std::lock_guard<std::mutex> locker(hopLock());
                if (hop->abandoned || g_shutDown) {
                    hop->abandoned = true;
                    hopDone().notify_all();
                    return;
                }
                hop->running = true;
            }
            fn();
            std::lock_guard<std::mutex> locker(hopLock());
            hop->done = true;
            hopDone().notify_all();
        },
        Qt::QueuedConnection);
    hopDone().wait(locker, [&] { return hop->done || hop->abandoned || (g_shutDown && !hop->running); });
    if (hop->done)
        return true;
    hop->abandoned = true;
    return false;
}

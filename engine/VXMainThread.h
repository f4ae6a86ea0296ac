#pragma once

#include <functional>

// Runs fn on the application's main thread and returns once it has run:
// directly when already there, else by posting it to the QCoreApplication
// instance and waiting. False, without running fn, when there is no
// application or after VXMainThread::shutdown().
bool VXRunOnMainThread(const std::function<void()> &fn);

class QThreadPool;

// Starts task on pool. The pool hands tasks to its threads through Qt's own
// locks, which ThreadSanitizer cannot see unless Qt itself was built with it;
// a standard mutex around the hand-over states the order it guarantees, so
// that a task's captures are not mistaken for racing with their creation.
void VXStartOnPool(QThreadPool *pool, std::function<void()> task);

class QObject;

// Queues fn to run on context's thread and returns at once; the way back from
// a pool task, with the same hand-over stated for ThreadSanitizer.
void VXPostTo(QObject *context, std::function<void()> fn);

namespace VXMainThread {
bool isMainThread();
// From now on hops fail at once, and hops already waiting are released
// (unless their function is running), so background work that reports to
// the main thread cannot deadlock an application waiting for it to end.
void shutdown();
// Accepts hops again (tests run several shutdowns in one process).
void resume();
bool isShutDown();
} // namespace VXMainThread

#pragma once

// Codec work in a child process. FFmpeg's decoders and the external encoders
// can crash, abort or spin on a damaged file; in a child that costs the file,
// never the batch or the window. The evenloud-worker program, started once,
// forks one child per run; the child reports over a pipe and runs under
// resource limits (address space, CPU time).

#include "engine/codec/VXLoudnessMeter.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>
#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <sys/types.h>

namespace vx {

// The worker program; empty means codec work stays in this process.
void setWorkerProgram(const QString &path);
QString workerProgram();
// Programs call this once at start: the worker named by EVENLOUD_WORKER, else
// the one beside the running program, else the one in the build tree. False
// (and codec work stays in process) when none is there, or when
// EVENLOUD_WORKER is "none".
bool useWorkerProcess();
// At the end of a program: ends the worker server and waits for it.
void stopWorkerProcess();

// One run of the worker: arguments in, reports out, as the child sends them.
class WorkerRun {
public:
    struct Handlers {
        std::function<void(int percent)> progress;
        std::function<void(int filter, const QByteArray &printOut)> printOut;
    };
    struct Outcome {
        bool completed = false;
        bool cancelled = false;
        QString reason;  // why it failed, in words, when it did
        VXLoudness loudness;
        std::map<int, VXLoudness> streams;  // further audio streams, by index
    };

    explicit WorkerRun(QStringList arguments, double cpuSeconds);
    // Runs the child to its end; blocks. Handlers are called on this thread.
    Outcome run(const Handlers &handlers);
    // From any thread: the child is stopped at once, the run ends cancelled.
    void cancel();

private:
    QStringList m_arguments;
    double m_cpuSeconds;
    std::mutex m_lock;  // orders a cancel against the start and the end
    quint64 m_id = 0;   // the server's number for this run while it runs
    std::atomic<bool> m_cancelled{false};
};

// Worker side: the program's whole main (it serves the program that started it).
int workerMain(int argc, char **argv);

} // namespace vx

#pragma once

// Codec work in a child process. FFmpeg's decoders and the external encoders
// can crash, abort or spin on a damaged file; in a child that costs the file,
// never the batch or the window. The evenloud-worker program, started once,
// forks one child per run; the child reports over a pipe and runs under
// resource limits (address space, CPU time).

#include "engine/codec/VXLoudnessMeter.h"

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QString>
#include <QStringList>
#include <atomic>
#include <cstdio>
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
        QMap<QByteArray, QByteArray> values;  // named results, as the command sends them
        std::map<int, VXLoudness> streams;  // further audio streams, by index
        VXLoudness input;  // the main stream as decoded, when measured
    };

    // role names what runs in the child in the reason for its crash
    // ("the decoder crashed on this file").
    explicit WorkerRun(QStringList arguments, double cpuSeconds, QString role = QStringLiteral("decoder"));
    // Runs the child to its end; blocks. Handlers are called on this thread.
    Outcome run(const Handlers &handlers);
    // From any thread: the child is stopped at once, the run ends cancelled.
    void cancel();

private:
    QStringList m_arguments;
    double m_cpuSeconds;
    QString m_role;
    std::mutex m_lock;  // orders a cancel against the start and the end
    quint64 m_id = 0;   // the server's number for this run while it runs
    std::atomic<bool> m_cancelled{false};
};

// A child that runs short commands one after another (probing), where a fork
// per file would cost more than the work: the first run starts it, later
// runs reuse it. Used by one thread at a time.
class WorkerSession {
public:
    // cpuSeconds holds for each run; role as WorkerRun's.
    WorkerSession(double cpuSeconds, QString role);
    ~WorkerSession();  // ends the child
    // Runs one command. When the child dies on it, the outcome has the reason
    // and the session is over (alive() false): earlier runs may have left the
    // child broken, so a caller gives the command a child of its own to know.
    WorkerRun::Outcome run(const QStringList &arguments);
    bool alive() const { return m_in != nullptr; }
    int runs() const { return m_runs; }

    WorkerSession(const WorkerSession &) = delete;
    WorkerSession &operator=(const WorkerSession &) = delete;

private:
    void end();

    double m_cpuSeconds;
    QString m_role;
    quint64 m_id = 0;
    FILE *m_in = nullptr;  // the socket, read as reports
    int m_runs = 0;
};

// The measure-album command, "measure-album [--flags N] TRACK...", N being
// VXMeasureFlag bits: written with the flags, read with or without them.
QStringList measureAlbumCommand(const QStringList &tracks, int flags);
// Its arguments after the verb: the tracks, and the flags (0 when left out).
QStringList measureAlbumTracks(const QStringList &args, int *flags = nullptr);

// Worker side: the program's whole main (it serves the program that started it).
int workerMain(int argc, char **argv);
// One forked child's work, its reports going to standard output.
int runWorkerCommand(QStringList args);

} // namespace vx

#pragma once

// The program's side of codec work in a child process. FFmpeg's decoders
// and the external encoders can crash, abort or spin on a damaged file; in a
// child that costs the file, never the batch or the window. The
// evenloud-worker program (VXWorkerServer.h), started once, forks one child
// per run (VXWorkerChild.h); the child reports over a pipe, in frames
// (VXWorkerProtocol.h), and runs under resource limits (address space, CPU
// time).

#include "engine/codec/VXError.h"
#include "engine/codec/VXLoudnessMeter.h"

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <atomic>
#include <functional>
#include <map>
#include <mutex>

namespace vx {

// The worker program; empty means codec work stays in this process. Setting
// it chooses the program's codec backend (VXCodecBackend.h) to match.
void setWorkerProgram(const QString &path);
QString workerProgram();
// Programs call this once at start: the worker named by EVENLOUD_WORKER, else
// the one beside the running program, else the one in the build tree. False
// (and codec work stays in process) when none is there, or when
// EVENLOUD_WORKER is "none".
bool useWorkerProcess();
// At the end of a program: ends the worker server and waits for it.
void stopWorkerProcess();

// What a run's reports add up to.
struct WorkerReport {
    VXLoudness loudness;  // "output"
    VXLoudness input;     // "input"
    std::map<int, VXLoudness> streams;  // "stream", by index
    VXAlbumLoudness album;  // "album"
    bool hasAlbum = false;
};

// What a run hears as the child sends it, on the caller's thread.
struct WorkerHandlers {
    std::function<void(int percent)> progress;
    std::function<void(int filter, const QByteArray &printOut)> printOut;
    std::function<void(const QString &name, const QByteArray &bytes)> value;
    // Sound to listen to: whole frames of channels interleaved floats. It
    // may block: the child then waits for the pipe.
    std::function<void(int rate, int channels, const QByteArray &samples)> pcm;
};

// One run of the worker: arguments in, reports out, as the child sends them.
class WorkerRun {
public:
    // role names what runs in the child in the reason for its crash
    // ("the decoder crashed on this file").
    explicit WorkerRun(QStringList arguments, double cpuSeconds, QString role = QStringLiteral("decoder"));
    // Runs the child to its end; blocks. A failure is what the child said,
    // or why it died; a cancel is VXCancelledError().
    VXResult<WorkerReport> run(const WorkerHandlers &handlers);
    // From any thread: the child is stopped at once, the run ends cancelled.
    void cancel();

private:
    VXResult<WorkerReport> ended(int end, VXResult<WorkerReport> read);

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
    // Runs one command. When the child dies on it, the error has the reason
    // and the session is over (alive() false): earlier runs may have left the
    // child broken, so a caller gives the command a child of its own to know.
    VXResult<WorkerReport> run(const QStringList &arguments, const WorkerHandlers &handlers);
    bool alive() const { return m_fd >= 0; }
    int runs() const { return m_runs; }

    WorkerSession(const WorkerSession &) = delete;
    WorkerSession &operator=(const WorkerSession &) = delete;

private:
    VXResult<> startChild();
    void end();

    double m_cpuSeconds;
    QString m_role;
    quint64 m_id = 0;
    int m_fd = -1;  // the socket: requests out, reports in
    int m_runs = 0;
};

} // namespace vx

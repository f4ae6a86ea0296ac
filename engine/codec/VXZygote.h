#pragma once

// Our side of the worker server: started on first use, started again if it
// ever goes away. One thread reads its end reports. Each run is a child the
// server forks; requests go over a socket, and a run's reports come back on
// the descriptor handed over with its request.

#include "engine/codec/VXError.h"

#include <QString>
#include <QStringList>
#include <climits>
#include <condition_variable>
#include <mutex>
#include <sys/types.h>
#include <unordered_map>

namespace vx {

class Zygote {
public:
    static Zygote &instance();

    // A run of args whose reports go to reportFd; its id (never 0), or why not.
    VXResult<quint64> start(const QStringList &args, double cpuSeconds, int reportFd);
    // Started ahead of the first file, so that file does not wait for it.
    void warmUp();
    void kill(quint64 id);
    // The run's wait status once it has ended; -1 when the server went away.
    int wait(quint64 id);
    // Ends the server and waits for it: its CPU time and memory then count
    // in this process's own accounts of its children, as they should.
    void stop();

private:
    static constexpr int kRunning = INT_MIN;

    VXResult<> launch();
    void readEnds(int sock, pid_t pid);

    std::mutex m_lock;
    std::condition_variable m_changed;
    int m_sock = -1;
    bool m_stopping = false;
    quint64 m_next = 1;
    std::unordered_map<quint64, int> m_running;  // id -> wait status, kRunning until it ends
};

} // namespace vx

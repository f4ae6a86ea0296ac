#include "engine/codec/VXZygote.h"

#include "engine/codec/VXLog.h"
#include "engine/codec/VXCodecBackend.h"
#include "engine/codec/VXFrame.h"
#include "engine/codec/VXWorker.h"
#include "engine/codec/VXWorkerProtocol.h"

#include <QFile>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char **environ;

namespace vx {

namespace {
std::mutex programLock;
QString program;
} // namespace

void setWorkerProgram(const QString &path)
{
    {
        std::lock_guard<std::mutex> guard(programLock);
        program = path;
    }
    setCodecBackend(path.isEmpty() ? inProcessBackend() : workerBackend());
}

QString workerProgram()
{
    std::lock_guard<std::mutex> guard(programLock);
    return program;
}

Zygote &Zygote::instance()
{
    static Zygote *z = new Zygote;  // never destroyed: runs may outlive main
    return *z;
}

VXResult<quint64> Zygote::start(const QStringList &args, double cpuSeconds, int reportFd)
{
    std::lock_guard<std::mutex> guard(m_lock);
    if (m_sock < 0)
        if (VXResult<> launched = launch(); !launched)
            return launched.error();
    const quint64 id = m_next++;
    QCborMap request = message("run");
    request.insert(QLatin1String("id"), qint64(id));
    request.insert(QLatin1String("cpu"), qint64(std::max(1.0, cpuSeconds)));
    request.insert(QLatin1String("args"), toCbor(args));
    const QByteArray frame = encodeFrame(request);
    if (size_t(frame.size()) > kWorkerMaxRequest) {
        return VXError::because(QStringLiteral("cannot reach the worker: %1").arg(QString::fromLocal8Bit(strerror(EMSGSIZE))));
    }
    if (sendRequest(m_sock, frame.constData(), size_t(frame.size()), reportFd) < 0) {
        return VXError::because(QStringLiteral("cannot reach the worker: %1").arg(QString::fromLocal8Bit(strerror(errno))));
    }
    m_running.emplace(id, kRunning);
    return id;
}

void Zygote::warmUp()
{
    std::lock_guard<std::mutex> guard(m_lock);
    if (m_sock < 0)
        if (VXResult<> launched = launch(); !launched)
            VXLog(launched.reason());
}

void Zygote::kill(quint64 id)
{
    std::lock_guard<std::mutex> guard(m_lock);
    QCborMap request = message("kill");
    request.insert(QLatin1String("id"), qint64(id));
    const QByteArray frame = encodeFrame(request);
    if (m_sock >= 0 && m_running.count(id))
        sendRequest(m_sock, frame.constData(), size_t(frame.size()), -1);
}

int Zygote::wait(quint64 id)
{
    std::unique_lock<std::mutex> lock(m_lock);
    m_changed.wait(lock, [&] { return m_running[id] != kRunning; });
    const int status = m_running[id];
    m_running.erase(id);
    return status;
}

VXResult<> Zygote::launch()
{
    int sv[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv) < 0) {
        return VXError::because(QStringLiteral("cannot start the worker: %1").arg(QString::fromLocal8Bit(strerror(errno))));
    }
    const QByteArray path = QFile::encodeName(workerProgram());
    char *argv[] = {const_cast<char *>(path.constData()), nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, sv[1], kWorkerSocketFd);
    pid_t pid = -1;
    const int err = posix_spawn(&pid, path.constData(), &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(sv[1]);
    if (err) {
        ::close(sv[0]);
        return VXError::because(QStringLiteral("cannot start %1: %2").arg(QString::fromLocal8Bit(path),
                                                                           QString::fromLocal8Bit(strerror(err))));
    }
    m_sock = sv[0];
    std::thread([this, sock = sv[0], pid] { readEnds(sock, pid); }).detach();
    return {};
}

void Zygote::readEnds(int sock, pid_t pid)
{
    QByteArray packet(4096, '\0');
    ssize_t n;
    while ((n = ::recv(sock, packet.data(), size_t(packet.size()), 0)) > 0 || (n < 0 && errno == EINTR)) {
        const VXResult<QCborMap> ended = decodeFrame(packet.left(n < 0 ? 0 : n));
        if (!ended || ended->value(QLatin1String("m")).toString() != QLatin1String("ended"))
            continue;
        std::lock_guard<std::mutex> guard(m_lock);
        const quint64 id = quint64(ended->value(QLatin1String("id")).toInteger());
        if (const auto it = m_running.find(id); it != m_running.end())
            it->second = int(ended->value(QLatin1String("status")).toInteger(-1));
        m_changed.notify_all();
    }
    // The server is gone: its runs with it. The next run starts another.
    int status = 0;
    ::waitpid(pid, &status, 0);
    std::lock_guard<std::mutex> guard(m_lock);
    if (!m_stopping)
        VXLog(QStringLiteral("The worker process stopped; starting a new one for the next file"));
    for (auto &run : m_running)
        if (run.second == kRunning)
            run.second = -1;
    ::close(sock);
    if (m_sock == sock)
        m_sock = -1;
    m_changed.notify_all();
}

void Zygote::stop()
{
    std::unique_lock<std::mutex> lock(m_lock);
    if (m_sock < 0)
        return;
    m_stopping = true;
    ::shutdown(m_sock, SHUT_RDWR);
    m_changed.wait(lock, [&] { return m_sock < 0; });
}

} // namespace vx

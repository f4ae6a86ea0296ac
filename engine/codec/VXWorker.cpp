#include "engine/codec/VXWorker.h"

#include "engine/codec/VXLog.h"
#include "engine/codec/VXWorkerProtocol.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <algorithm>
#include <climits>
#include <cmath>
#include <condition_variable>
#include <thread>
#include <unordered_map>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char **environ;

// The report pipe carries one message per line, from the child to us:
//   P <percent>              progress
//   L <text>                 a diagnostic line for the parent's log
//   F <filter> <bytes>\n...  a filter's print-out, that many bytes after the line
//   M <I> <TP> <LRA>         a measurement
//   R <text>                 why the work failed
//   N <text>                 what the sandbox could not cage on this kernel
//   V <name> <bytes>\n...     a named result, that many bytes after the line
//   E <result>               the end: 0 completed, 1 failed, 2 cancelled

namespace vx {
namespace {

std::mutex programLock;
QString program;

// A named result bigger than this is no result of ours: a cover picture
// over 50 MB is not shown anyway.
constexpr qsizetype kMaxValueBytes = 64 * 1024 * 1024;

QString signalReason(int sig, const QString &role)
{
    switch (sig) {
    case SIGXCPU:
    case SIGALRM: return QStringLiteral("the %1 took too long on this file and was stopped").arg(role);
    case SIGKILL: return QStringLiteral("the %1 was killed on this file (out of memory?)").arg(role);
    case SIGSYS: return QStringLiteral("the %1 tried to leave its sandbox on this file and was stopped").arg(role);
    default:
        return QStringLiteral("the %1 crashed on this file (%2)").arg(role, QString::fromLocal8Bit(strsignal(sig)));
    }
}


// Our side of the worker server: started on first use, started again if it
// ever goes away. One thread reads its end reports.
class Zygote {
public:
    static Zygote &instance()
    {
        static Zygote *z = new Zygote;  // never destroyed: runs may outlive main
        return *z;
    }

    quint64 start(const QStringList &args, double cpuSeconds, int reportFd, QString *why)
    {
        QByteArray message(sizeof(WorkerRequest), '\0');
        for (const QString &a : args)
            message += a.toUtf8() + '\0';
        std::lock_guard<std::mutex> guard(m_lock);
        if (m_sock < 0 && !launch(why))
            return 0;
        const WorkerRequest request{'R', m_next++, quint64(std::max(1.0, cpuSeconds))};
        std::memcpy(message.data(), &request, sizeof request);
        if (size_t(message.size()) > kWorkerMaxRequest
            || sendRequest(m_sock, message.constData(), size_t(message.size()), reportFd) < 0) {
            *why = QStringLiteral("cannot reach the worker: %1").arg(QString::fromLocal8Bit(strerror(errno)));
            return 0;
        }
        m_running.emplace(request.id, kRunning);
        return request.id;
    }

    // Started ahead of the first file, so that file does not wait for it.
    void warmUp()
    {
        std::lock_guard<std::mutex> guard(m_lock);
        QString why;
        if (m_sock < 0 && !launch(&why))
            VXLog(why);
    }

    void kill(quint64 id)
    {
        std::lock_guard<std::mutex> guard(m_lock);
        const WorkerRequest request{'K', id, 0};
        if (m_sock >= 0 && m_running.count(id))
            sendRequest(m_sock, &request, sizeof request, -1);
    }

    // The run's wait status once it has ended; -1 when the server went away.
    int wait(quint64 id)
    {
        std::unique_lock<std::mutex> lock(m_lock);
        m_changed.wait(lock, [&] { return m_running[id] != kRunning; });
        const int status = m_running[id];
        m_running.erase(id);
        return status;
    }

private:
    static constexpr int kRunning = INT_MIN;

    bool launch(QString *why)
    {
        int sv[2];
        if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv) < 0) {
            *why = QStringLiteral("cannot start the worker: %1").arg(QString::fromLocal8Bit(strerror(errno)));
            return false;
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
            *why = QStringLiteral("cannot start %1: %2").arg(QString::fromLocal8Bit(path),
                                                              QString::fromLocal8Bit(strerror(err)));
            return false;
        }
        m_sock = sv[0];
        std::thread([this, sock = sv[0], pid] { readEnds(sock, pid); }).detach();
        return true;
    }

    void readEnds(int sock, pid_t pid)
    {
        WorkerEnded ended{};
        ssize_t n;
        while ((n = ::recv(sock, &ended, sizeof ended, 0)) > 0 || (n < 0 && errno == EINTR)) {
            if (n != ssize_t(sizeof ended) || ended.type != 'X')
                continue;
            std::lock_guard<std::mutex> guard(m_lock);
            if (const auto it = m_running.find(ended.id); it != m_running.end())
                it->second = ended.status;
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

public:
    // Ends the server and waits for it: its CPU time and memory then count
    // in this process's own accounts of its children, as they should.
    void stop()
    {
        std::unique_lock<std::mutex> lock(m_lock);
        if (m_sock < 0)
            return;
        m_stopping = true;
        ::shutdown(m_sock, SHUT_RDWR);
        m_changed.wait(lock, [&] { return m_sock < 0; });
    }

private:

    std::mutex m_lock;
    std::condition_variable m_changed;
    int m_sock = -1;
    bool m_stopping = false;
    quint64 m_next = 1;
    std::unordered_map<quint64, int> m_running;  // id -> wait status, kRunning until it ends
};

// What the kernel could not cage, said once per program.
void noteSandbox(const QByteArray &note)
{
    static std::once_flag once;
    std::call_once(once, [&] {
        VXLog(QStringLiteral("The codec worker runs without a full sandbox: %1").arg(QString::fromUtf8(note)));
    });
}

// Test seam: a codec run that names EVENLOUD_WORKER_ABORT_ON aborts in the
// child; "probe:NAME" aborts the probes that name NAME instead.
QStringList withTestSeam(QStringList arguments)
{
    // "WHAT@NAME,...": the codec runs that name NAME try to break out of
    // their sandbox (see attemptEscapeForTest).
    const bool codecRun = arguments.value(0) == QLatin1String("transcode") || arguments.value(0) == QLatin1String("measure");
    const QStringList escapes = QString::fromLocal8Bit(qgetenv("EVENLOUD_WORKER_ESCAPE_ON")).split(QLatin1Char(','));
    for (const QString &escape : codecRun ? escapes : QStringList()) {
        const qsizetype at = escape.lastIndexOf(QLatin1Char('@'));
        if (at > 0 && arguments.join(QLatin1Char('\n')).contains(escape.mid(at + 1))) {
            arguments = QStringList{QStringLiteral("--escape-for-test"), escape.left(at)} + arguments;
            break;
        }
    }
    if (const QString crash = QString::fromLocal8Bit(qgetenv("EVENLOUD_WORKER_ABORT_ON")); !crash.isEmpty()) {
        const bool probe = arguments.value(0) == QLatin1String("probe");
        if (crash.startsWith(QLatin1String("probe:")) == probe
            && arguments.join(QLatin1Char('\n')).contains(crash.mid(probe ? 6 : 0)))
            arguments.prepend(QStringLiteral("--abort-for-test"));
    }
    return arguments;
}

// "V <name> <size>" and the bytes after it; false when the size is out of
// bounds or the bytes do not come, which leaves the stream unreadable.
bool readValue(FILE *in, const QByteArray &rest, WorkerRun::Outcome *out)
{
    const QList<QByteArray> v = rest.split(' ');
    const qsizetype size = v.size() == 2 ? v[1].toLongLong() : -1;
    QByteArray bytes(std::clamp<qsizetype>(size, 0, kMaxValueBytes), '\0');
    if (size != bytes.size() || std::fread(bytes.data(), 1, size_t(size), in) != size_t(size))
        return false;
    out->values.insert(v[0], bytes);
    return true;
}

} // namespace

void setWorkerProgram(const QString &path)
{
    std::lock_guard<std::mutex> guard(programLock);
    program = path;
}

QString workerProgram()
{
    std::lock_guard<std::mutex> guard(programLock);
    return program;
}

void stopWorkerProcess() { Zygote::instance().stop(); }

bool useWorkerProcess()
{
    // "none" keeps codec work in this process (for measuring what isolation costs).
    if (qgetenv("EVENLOUD_WORKER") == "none")
        return false;
    QStringList candidates{QString::fromLocal8Bit(qgetenv("EVENLOUD_WORKER"))};
    if (QCoreApplication::instance()) {
        const QString dir = QCoreApplication::applicationDirPath();
        // Beside the program in a build; under libexec/evenloud when installed.
        candidates << dir + QStringLiteral("/evenloud-worker")
                   << QDir::cleanPath(dir + QStringLiteral("/../libexec/evenloud/evenloud-worker"));
    }
#ifdef EVENLOUD_WORKER_BUILD_PATH
    candidates << QStringLiteral(EVENLOUD_WORKER_BUILD_PATH);
#endif
    for (const QString &c : std::as_const(candidates)) {
        if (!c.isEmpty() && QFileInfo(c).isExecutable()) {
            setWorkerProgram(c);
            Zygote::instance().warmUp();
            return true;
        }
    }
    VXLog(QStringLiteral("No evenloud-worker found: files are processed inside this program"));
    return false;
}

WorkerRun::WorkerRun(QStringList arguments, double cpuSeconds, QString role)
    : m_arguments(std::move(arguments)), m_cpuSeconds(cpuSeconds), m_role(std::move(role))
{
}

void WorkerRun::cancel()
{
    m_cancelled.store(true);
    std::lock_guard<std::mutex> guard(m_lock);
    if (m_id)
        Zygote::instance().kill(m_id);
}

WorkerRun::Outcome WorkerRun::run(const Handlers &handlers)
{
    Outcome out;
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) < 0) {
        out.reason = QStringLiteral("cannot start the worker: %1").arg(QString::fromLocal8Bit(strerror(errno)));
        return out;
    }
    const QStringList arguments = withTestSeam(m_arguments);
    QString why;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        if (!m_cancelled.load())
            m_id = Zygote::instance().start(arguments, m_cpuSeconds, fds[1], &why);
    }
    ::close(fds[1]);
    if (!m_id) {
        ::close(fds[0]);
        out.cancelled = m_cancelled.load();
        out.reason = why;
        return out;
    }

    FILE *in = fdopen(fds[0], "r");
    char *buffer = nullptr;
    size_t capacity = 0;
    ssize_t n;
    int end = -1;
    bool stopped = false;
    while (in && !stopped && (n = getline(&buffer, &capacity, in)) > 0) {
        const QByteArray line = QByteArray(buffer, n).chopped(buffer[n - 1] == '\n' ? 1 : 0);
        const QByteArray rest = line.mid(2);
        switch (line.isEmpty() ? 0 : line[0]) {
        case 'P':
            if (handlers.progress)
                handlers.progress(rest.toInt());
            break;
        case 'L': VXLog(QString::fromUtf8(rest)); break;
        case 'R': out.reason = QString::fromUtf8(rest); break;
        case 'N': noteSandbox(rest); break;
        case 'M':
        case 'S': {
            // "M I TP LRA": the output; "S index I TP LRA": a further stream.
            QList<QByteArray> v = rest.split(' ');
            VXLoudness *l = &out.loudness;
            if (line[0] == 'S' && v.size() == 4)
                l = &out.streams[v.takeFirst().toInt()];
            if (v.size() == 3) {
                l->integrated = v[0].toDouble();
                l->truePeak = v[1].toDouble();
                l->range = v[2].toDouble();
            }
            break;
        }
        case 'F': {
            const QList<QByteArray> v = rest.split(' ');
            const qsizetype size = v.size() == 2 ? v[1].toLongLong() : 0;
            QByteArray bytes(size, '\0');
            if (size > 0 && std::fread(bytes.data(), 1, size_t(size), in) != size_t(size))
                break;
            if (handlers.printOut)
                handlers.printOut(v.value(0).toInt(), bytes);
            break;
        }
        case 'V': stopped = !readValue(in, rest, &out); break;
        case 'E': end = rest.toInt(); break;
        default: break;
        }
    }
    std::free(buffer);
    if (in)
        std::fclose(in);
    else
        ::close(fds[0]);

    const int status = Zygote::instance().wait(m_id);
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_id = 0;
    }
    if (m_cancelled.load()) {
        out.cancelled = true;
    } else if (status == -1) {
        out.reason = QStringLiteral("the worker stopped");
    } else if (WIFSIGNALED(status)) {
        out.reason = signalReason(WTERMSIG(status), m_role);
    } else if (end == 0) {
        out.completed = true;
    } else if (end == 2) {
        out.cancelled = true;
    } else if (out.reason.isEmpty()) {
        out.reason = QStringLiteral("the worker ended without a result (status %1)").arg(WEXITSTATUS(status));
    }
    return out;
}

WorkerSession::WorkerSession(double cpuSeconds, QString role) : m_cpuSeconds(cpuSeconds), m_role(std::move(role)) {}

WorkerSession::~WorkerSession() { end(); }

void WorkerSession::end()
{
    if (!m_in)
        return;
    // Our end closed is the child's cue to leave.
    std::fclose(m_in);
    m_in = nullptr;
    Zygote::instance().wait(m_id);
}

WorkerRun::Outcome WorkerSession::run(const QStringList &arguments)
{
    WorkerRun::Outcome out;
    if (!m_in) {
        int sv[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) < 0) {
            out.reason = QStringLiteral("cannot start the worker: %1").arg(QString::fromLocal8Bit(strerror(errno)));
            return out;
        }
        // The session's own CPU limit only bounds its life (its runs are
        // limited one by one): an hour is far more than its runs take.
        const QStringList serve{QStringLiteral("serve"), QString::number(int(std::ceil(m_cpuSeconds)))};
        QString why;
        m_id = Zygote::instance().start(serve, 3600, sv[1], &why);
        ::close(sv[1]);
        if (!m_id) {
            ::close(sv[0]);
            out.reason = why;
            return out;
        }
        m_in = fdopen(sv[0], "r");
        if (!m_in) {
            ::close(sv[0]);
            Zygote::instance().kill(m_id);
            Zygote::instance().wait(m_id);
            out.reason = QStringLiteral("cannot start the worker: %1").arg(QString::fromLocal8Bit(strerror(errno)));
            return out;
        }
    }
    ++m_runs;
    QByteArray request;
    for (const QString &a : withTestSeam(arguments))
        request += a.toUtf8() + '\0';
    request.prepend(QByteArray::number(request.size()) + '\n');
    const int sock = fileno(m_in);
    bool sent = true;
    for (qsizetype done = 0; sent && done < request.size();) {
        const ssize_t n = ::send(sock, request.constData() + done, size_t(request.size() - done), MSG_NOSIGNAL);
        if (n > 0)
            done += n;
        else
            sent = n < 0 && errno == EINTR;
    }
    char *buffer = nullptr;
    size_t capacity = 0;
    ssize_t n;
    int end = -1;
    bool readable = sent;
    while (readable && end < 0 && (n = getline(&buffer, &capacity, m_in)) > 0) {
        const QByteArray line = QByteArray(buffer, n).chopped(buffer[n - 1] == '\n' ? 1 : 0);
        const QByteArray rest = line.mid(2);
        switch (line.isEmpty() ? 0 : line[0]) {
        case 'L': VXLog(QString::fromUtf8(rest)); break;
        case 'R': out.reason = QString::fromUtf8(rest); break;
        case 'N': noteSandbox(rest); break;
        case 'V': readable = readValue(m_in, rest, &out); break;
        case 'E': end = rest.toInt(); break;
        default: break;
        }
    }
    std::free(buffer);
    if (end == 0) {
        out.completed = true;
    } else if (end < 0) {
        // The child is gone, or cannot be read any more.
        const quint64 id = m_id;
        Zygote::instance().kill(id);
        std::fclose(m_in);
        m_in = nullptr;
        const int status = Zygote::instance().wait(id);
        if (status == -1)
            out.reason = QStringLiteral("the worker stopped");
        else if (WIFSIGNALED(status))
            out.reason = signalReason(WTERMSIG(status), m_role);
        else
            out.reason = QStringLiteral("the worker ended without a result (status %1)").arg(WEXITSTATUS(status));
    }
    return out;
}

} // namespace vx

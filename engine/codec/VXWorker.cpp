#include "engine/codec/VXWorker.h"

#include "engine/codec/VXLog.h"
#include "engine/codec/VXWorkerProtocol.h"
#include "engine/codec/VXZygote.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

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

QStringList measureAlbumCommand(const QStringList &tracks, int flags)
{
    return QStringList{QStringLiteral("measure-album"), QStringLiteral("--flags"), QString::number(flags)} + tracks;
}

QStringList measureAlbumTracks(const QStringList &args, int *flags)
{
    const bool given = args.size() >= 2 && args[0] == QLatin1String("--flags");
    if (flags)
        *flags = given ? args[1].toInt() : 0;
    return given ? args.mid(2) : args;
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
        case 'I': {
            // "I I LRA THRESHOLD": the main stream as decoded.
            const QList<QByteArray> v = rest.split(' ');
            if (v.size() == 3) {
                out.input.integrated = std::strtod(v[0].constData(), nullptr);
                out.input.range = std::strtod(v[1].constData(), nullptr);
                out.input.threshold = std::strtod(v[2].constData(), nullptr);
            }
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

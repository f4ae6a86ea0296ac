#include "engine/codec/VXWorker.h"

#include "engine/codec/VXCancel.h"
#include "engine/codec/VXCodecConstants.h"
#include "engine/codec/VXFrame.h"
#include "engine/codec/VXLog.h"
#include "engine/codec/VXWorkerProtocol.h"
#include "engine/codec/VXZygote.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vx {
namespace {

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

VXError startError()
{
    return VXError::because(QStringLiteral("cannot start the worker: %1").arg(QString::fromLocal8Bit(strerror(errno))));
}

// What the kernel could not cage, said once per program.
void noteSandbox(const QString &note)
{
    static std::once_flag once;
    std::call_once(once, [&] { VXLog(QStringLiteral("The codec worker runs without a full sandbox: %1").arg(note)); });
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

// The one reader of a child's reports (see VXWorkerProtocol.h), for a run
// and for a session's command alike.
class ReportReader {
public:
    explicit ReportReader(const WorkerHandlers &handlers) : m_handlers(handlers) {}

    // Until the end message, or on to the stream's end with untilClose (a
    // child's last words may follow its end). Stops at a frame refused.
    void read(int fd, bool untilClose)
    {
        while (untilClose || m_end < 0) {
            const VXResult<QCborMap> frame = readFrame(fd);
            // A frame cut short is a child that died writing: its status says why.
            if (!frame && frame.error().code != kFrameEnd && frame.error().code != kFrameTruncated)
                m_broken = frame.error();
            if (!frame || !take(*frame))
                return;
        }
    }

    int end() const { return m_end; }
    bool broken() const { return !m_broken.description.isEmpty(); }
    VXError brokenError() const
    {
        return VXError::because(QStringLiteral("the worker's report cannot be read: %1").arg(m_broken.description));
    }
    // What the child said of its failure, when it did.
    const VXError &childError() const { return m_childError; }
    WorkerReport &report() { return m_report; }

private:
    bool take(const QCborMap &m)
    {
        const QString name = m.value(QLatin1String("m")).toString();
        auto loudness = [&m] { return loudnessFromCbor(m.value(QLatin1String("loudness")).toMap()); };
        if (name == QLatin1String("progress") && m_handlers.progress)
            m_handlers.progress(int(m.value(QLatin1String("percent")).toInteger()));
        else if (name == QLatin1String("log"))
            VXLog(m.value(QLatin1String("text")).toString());
        else if (name == QLatin1String("sandbox"))
            noteSandbox(m.value(QLatin1String("text")).toString());
        else if (name == QLatin1String("error"))
            m_childError = errorFrom(m);
        else if (name == QLatin1String("output"))
            m_report.loudness = loudness();
        else if (name == QLatin1String("input"))
            m_report.input = loudness();
        else if (name == QLatin1String("stream"))
            m_report.streams[int(m.value(QLatin1String("index")).toInteger())] = loudness();
        else if (name == QLatin1String("album"))
            m_report.album = albumFromCbor(m), m_report.hasAlbum = true;
        else if (name == QLatin1String("printOut") && m_handlers.printOut)
            m_handlers.printOut(int(m.value(QLatin1String("filter")).toInteger(-1)), m.value(QLatin1String("bytes")).toByteArray());
        else if (name == QLatin1String("value"))
            return takeValue(m);
        else if (name == QLatin1String("pcm"))
            return takePcm(m);
        else if (name == QLatin1String("end"))
            m_end = int(m.value(QLatin1String("result")).toInteger(1));
        return true;
    }

    bool takeValue(const QCborMap &m)
    {
        const QByteArray bytes = m.value(QLatin1String("bytes")).toByteArray();
        if (bytes.size() > kMaxValueBytes) {
            m_broken = VXError::because(QStringLiteral("a value of %1 bytes is over the limit").arg(bytes.size()));
            return false;
        }
        if (m_handlers.value)
            m_handlers.value(m.value(QLatin1String("name")).toString(), bytes);
        return true;
    }

    bool takePcm(const QCborMap &m)
    {
        const qint64 rate = m.value(QLatin1String("rate")).toInteger();
        const qint64 channels = m.value(QLatin1String("channels")).toInteger();
        const QByteArray samples = m.value(QLatin1String("bytes")).toByteArray();
        if (rate <= 0 || rate > 768000 || channels <= 0 || channels > 16
            || samples.size() % (channels * qsizetype(sizeof(float))) != 0) {
            m_broken = VXError::because(QStringLiteral("sound of %1 channels at %2 Hz in %3 bytes is no sound of ours")
                                            .arg(channels).arg(rate).arg(samples.size()));
            return false;
        }
        if (m_handlers.pcm)
            m_handlers.pcm(int(rate), int(channels), samples);
        return true;
    }

    static VXError errorFrom(const QCborMap &m)
    {
        VXError e;
        e.domain = m.value(QLatin1String("domain")).toString();
        e.code = int(m.value(QLatin1String("code")).toInteger());
        e.description = m.value(QLatin1String("text")).toString();
        if (m.value(QLatin1String("drm")).toBool())
            e.userInfo.insert(QLatin1String(VXTranscodingDRMProtected), true);
        return e;
    }

    const WorkerHandlers &m_handlers;
    WorkerReport m_report;
    VXError m_childError;
    VXError m_broken;
    int m_end = -1;
};

// Why a child that gave no complete result stopped.
VXError stoppedError(int status, const QString &role)
{
    if (status == -1)
        return VXError::because(QStringLiteral("the worker stopped"));
    if (WIFSIGNALED(status))
        return VXError::because(signalReason(WTERMSIG(status), role));
    return VXError::because(QStringLiteral("the worker ended without a result (status %1)").arg(WEXITSTATUS(status)));
}

// The child's own error when it gave one with a reason, else generic.
VXError failedError(const ReportReader &reader, int status, const QString &role)
{
    if (!reader.childError().description.isEmpty() || !reader.childError().domain.isEmpty())
        return reader.childError();
    return stoppedError(status, role);
}

} // namespace

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

VXResult<WorkerReport> WorkerRun::run(const WorkerHandlers &handlers)
{
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) < 0)
        return startError();
    VXResult<quint64> started = VXCancelledError();
    {
        std::lock_guard<std::mutex> guard(m_lock);
        if (!m_cancelled.load())
            started = Zygote::instance().start(withTestSeam(m_arguments), m_cpuSeconds, fds[1]);
        m_id = started.valueOr(0);
    }
    ::close(fds[1]);
    if (!m_id) {
        ::close(fds[0]);
        return m_cancelled.load() ? VXCancelledError() : started.error();
    }
    ReportReader reader(handlers);
    reader.read(fds[0], true);
    if (reader.broken())
        Zygote::instance().kill(m_id);
    // Closed before the wait: a child still writing then ends on a broken pipe.
    ::close(fds[0]);
    const int status = Zygote::instance().wait(m_id);
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_id = 0;
    }
    if (m_cancelled.load())
        return VXCancelledError();
    if (reader.broken())
        return reader.brokenError();
    if (status == -1 || WIFSIGNALED(status))
        return stoppedError(status, m_role);
    if (reader.end() == 0)
        return std::move(reader.report());
    if (reader.end() == 2)
        return VXCancelledError();
    return failedError(reader, status, m_role);
}

WorkerSession::WorkerSession(double cpuSeconds, QString role) : m_cpuSeconds(cpuSeconds), m_role(std::move(role)) {}

WorkerSession::~WorkerSession() { end(); }

void WorkerSession::end()
{
    if (m_fd < 0)
        return;
    // Our end closed is the child's cue to leave.
    ::close(m_fd);
    m_fd = -1;
    Zygote::instance().wait(m_id);
}

VXResult<> WorkerSession::startChild()
{
    int sv[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) < 0)
        return startError();
    // The session's own CPU limit only bounds its life (its runs are
    // limited one by one): an hour is far more than its runs take.
    const QStringList serve{QStringLiteral("serve"), QString::number(int(std::ceil(m_cpuSeconds)))};
    const VXResult<quint64> started = Zygote::instance().start(serve, 3600, sv[1]);
    ::close(sv[1]);
    if (!started) {
        ::close(sv[0]);
        return started.error();
    }
    m_id = *started;
    m_fd = sv[0];
    return {};
}

VXResult<WorkerReport> WorkerSession::run(const QStringList &arguments, const WorkerHandlers &handlers)
{
    if (m_fd < 0)
        if (VXResult<> started = startChild(); !started)
            return started.error();
    ++m_runs;
    QCborMap request = message("run");
    request.insert(QLatin1String("args"), toCbor(withTestSeam(arguments)));
    ReportReader reader(handlers);
    if (sendFrame(m_fd, request))
        reader.read(m_fd, false);
    if (reader.end() == 0)
        return std::move(reader.report());
    if (reader.end() > 0 && !reader.broken())
        return failedError(reader, 0, m_role);
    // The child is gone, or cannot be read any more.
    const quint64 id = m_id;
    Zygote::instance().kill(id);
    ::close(m_fd);
    m_fd = -1;
    const int status = Zygote::instance().wait(id);
    return reader.broken() ? reader.brokenError() : stoppedError(status, m_role);
}

} // namespace vx

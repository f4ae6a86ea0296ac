// The worker program: a small server that forks one child per run.
// It loads FFmpeg once; a fork then costs a millisecond where starting the
// program again would cost a tenth of a second of library loading.

#include "engine/codec/VXWorkerServer.h"

#include "engine/codec/VXFrame.h"
#include "engine/codec/VXSandbox.h"
#include "engine/codec/VXWorkerChild.h"
#include "engine/codec/VXWorkerProtocol.h"

#include <QBuffer>
#include <QImageReader>
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <map>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace vx {
namespace {

// Address space for one file's codec work: far above what a pass needs (about
// 100 MB), low enough that a runaway allocation fails in the child.
constexpr rlim_t kAddressSpace = rlim_t(4) << 30;

// Loaded here, once: a child has no plugin folder to read in its cage, and
// would otherwise load them again for every cover it checks.
void preloadImagePlugins()
{
    for (const QByteArray &format : QImageReader::supportedImageFormats()) {
        QBuffer empty;
        empty.open(QIODevice::ReadOnly);
        QImageReader(&empty, format).canRead();
    }
}

void limitChild(quint64 cpuSeconds)
{
    const rlimit cpu{rlim_t(std::max<quint64>(cpuSeconds, 1)), rlim_t(std::max<quint64>(cpuSeconds, 1) + 5)};
    setrlimit(RLIMIT_CPU, &cpu);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    // (Sanitizer builds reserve terabytes of address space for their shadow.)
    const rlimit space{kAddressSpace, kAddressSpace};
    setrlimit(RLIMIT_AS, &space);
#endif
}

// The server's state: its socket, the signal descriptor that tells of
// ended children, and which run each child is.
struct Server {
    int sock = kWorkerSocketFd;
    int childEvents = -1;
    sigset_t previous{};
    std::map<pid_t, quint64> children;

    void reply(quint64 id, int status) const
    {
        QCborMap ended = message("ended");
        ended.insert(QLatin1String("id"), qint64(id));
        ended.insert(QLatin1String("status"), status);
        const QByteArray frame = encodeFrame(ended);
        ::send(sock, frame.constData(), size_t(frame.size()), MSG_NOSIGNAL);
    }

    void reap()
    {
        signalfd_siginfo info;
        while (::read(childEvents, &info, sizeof info) < 0 && errno == EINTR) {
        }
        int status = 0;
        pid_t pid;
        while ((pid = ::waitpid(-1, &status, WNOHANG)) > 0) {
            if (const auto it = children.find(pid); it != children.end()) {
                reply(it->second, status);
                children.erase(it);
            }
        }
    }

    // The program has gone or is ending: so do its runs.
    void endAll()
    {
        for (const auto &child : children)
            ::kill(child.first, SIGKILL);
        while (::wait(nullptr) > 0 || errno == EINTR) {
        }
    }

    void fork(const QCborMap &request, int passed)
    {
        const quint64 id = quint64(request.value(QLatin1String("id")).toInteger());
        const QStringList args = stringsFromCbor(request.value(QLatin1String("args")));
        const pid_t pid = ::fork();
        if (pid == 0) {
            sigprocmask(SIG_SETMASK, &previous, nullptr);
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::close(sock);
            ::close(childEvents);
            ::dup2(passed, 1);
            ::close(passed);
            limitChild(quint64(request.value(QLatin1String("cpu")).toInteger()));
            std::fflush(nullptr);
            _exit(runWorkerCommand(args));
        }
        ::close(passed);
        if (pid < 0)
            reply(id, -1);
        else
            children.emplace(pid, id);
    }

    // One request; false when the program has gone.
    bool serveRequest()
    {
        std::vector<char> buffer(kWorkerMaxRequest);
        int passed = -1;
        const ssize_t n = receiveRequest(sock, buffer.data(), buffer.size(), &passed);
        if (n <= 0)
            return false;
        const VXResult<QCborMap> request = decodeFrame(QByteArray(buffer.data(), n));
        const QString type = request ? request->value(QLatin1String("m")).toString() : QString();
        if (type == QLatin1String("kill")) {
            const quint64 id = quint64(request->value(QLatin1String("id")).toInteger());
            for (const auto &child : children)
                if (child.second == id)
                    ::kill(child.first, SIGKILL);
        } else if (type == QLatin1String("run") && passed >= 0) {
            fork(*request, passed);
            return true;
        }
        if (passed >= 0)
            ::close(passed);
        return true;
    }
};

} // namespace

int workerMain(int, char **)
{
    preloadImagePlugins();
    prepareSandbox();
    // No parent-death signal here: it follows the thread that started us,
    // which may be any short-lived thread. The socket's end tells instead:
    // it closes with the program, whatever way that ends.
    Server server;
    sigset_t childSignals;
    sigemptyset(&childSignals);
    sigaddset(&childSignals, SIGCHLD);
    sigprocmask(SIG_BLOCK, &childSignals, &server.previous);
    server.childEvents = signalfd(-1, &childSignals, SFD_CLOEXEC);
    if (server.childEvents < 0)
        return 2;
    for (;;) {
        pollfd fds[2] = {{server.sock, POLLIN, 0}, {server.childEvents, POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0)
            continue;
        if (fds[1].revents & POLLIN)
            server.reap();
        if ((fds[0].revents & (POLLIN | POLLHUP)) && !server.serveRequest()) {
            server.endAll();
            return 0;
        }
    }
}

} // namespace vx

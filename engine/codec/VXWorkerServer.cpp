// The worker program's side: a small server that forks one child per run.
// It loads FFmpeg once; a fork then costs a millisecond where starting the
// program again would cost a tenth of a second of library loading.

#include "engine/codec/VXSandbox.h"
#include "engine/codec/VXWorker.h"
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

} // namespace

int workerMain(int, char **)
{
    preloadImagePlugins();
    prepareSandbox();
    // No parent-death signal here: it follows the thread that started us,
    // which may be any short-lived thread. The socket's end tells instead:
    // it closes with the program, whatever way that ends.
    const int sock = kWorkerSocketFd;
    sigset_t childSignals, previous;
    sigemptyset(&childSignals);
    sigaddset(&childSignals, SIGCHLD);
    sigprocmask(SIG_BLOCK, &childSignals, &previous);
    const int childEvents = signalfd(-1, &childSignals, SFD_CLOEXEC);
    if (childEvents < 0)
        return 2;
    std::map<pid_t, quint64> children;
    auto reply = [sock](quint64 id, int status) {
        const WorkerEnded message{'X', id, status};
        ::send(sock, &message, sizeof message, MSG_NOSIGNAL);
    };
    for (;;) {
        pollfd fds[2] = {{sock, POLLIN, 0}, {childEvents, POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0)
            continue;
        if (fds[1].revents & POLLIN) {
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
        if (!(fds[0].revents & (POLLIN | POLLHUP)))
            continue;
        std::vector<char> buffer(kWorkerMaxRequest);
        int passed = -1;
        const ssize_t n = receiveRequest(sock, buffer.data(), buffer.size(), &passed);
        if (n <= 0) {  // the program has gone or is ending: so do its runs
            for (const auto &child : children)
                ::kill(child.first, SIGKILL);
            while (::wait(nullptr) > 0 || errno == EINTR) {
            }
            return 0;
        }
        WorkerRequest request;
        if (size_t(n) < sizeof request) {
            if (passed >= 0)
                ::close(passed);
            continue;
        }
        std::memcpy(&request, buffer.data(), sizeof request);
        if (request.type == 'K') {
            for (const auto &child : children)
                if (child.second == request.id)
                    ::kill(child.first, SIGKILL);
            continue;
        }
        if (request.type != 'R' || passed < 0)
            continue;
        QStringList args;
        for (const QByteArray &a : QByteArray(buffer.data() + sizeof request, n - qsizetype(sizeof request)).split('\0'))
            if (!a.isEmpty())
                args << QString::fromUtf8(a);
        const pid_t pid = ::fork();
        if (pid == 0) {
            sigprocmask(SIG_SETMASK, &previous, nullptr);
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::close(sock);
            ::close(childEvents);
            ::dup2(passed, 1);
            ::close(passed);
            limitChild(request.cpuSeconds);
            std::fflush(nullptr);
            _exit(runWorkerCommand(args));
        }
        ::close(passed);
        if (pid < 0)
            reply(request.id, -1);
        else
            children.emplace(pid, request.id);
    }
}

} // namespace vx

#include "cli/CliSignals.h"

#include <QSocketNotifier>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace {

int g_pipe[2] = {-1, -1};
std::atomic<int> g_pending{0};
std::atomic<bool> g_interrupted{false};
std::atomic<int> g_signal{0};
static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<int>::is_always_lock_free,
              "set from a signal handler");

void onSignal(int sig)
{
    int none = 0;
    g_signal.compare_exchange_strong(none, sig);
    // Should the event loop ever be stuck, the third interrupt still ends
    // the process (only async-signal-safe calls here).
    if (g_pending.fetch_add(1) + 1 >= 3)
        _exit(128 + g_signal.load());
    g_interrupted.store(true);
    const int saved = errno;
    const char byte = 1;
    [[maybe_unused]] const ssize_t n = write(g_pipe[1], &byte, 1);
    errno = saved;
}

} // namespace

CliSignals::CliSignals(QObject *parent) : QObject(parent)
{
    if (pipe2(g_pipe, O_CLOEXEC | O_NONBLOCK) != 0)
        return;
    struct sigaction sa {};
    sa.sa_handler = onSignal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESTART;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    m_notifier = new QSocketNotifier(g_pipe[0], QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, &CliSignals::drain);
}

CliSignals::~CliSignals()
{
    signal(SIGINT, SIG_DFL);
    signal(SIGTERM, SIG_DFL);
    delete m_notifier;
    if (g_pipe[0] >= 0) {
        close(g_pipe[0]);
        close(g_pipe[1]);
        g_pipe[0] = g_pipe[1] = -1;
    }
}

const std::atomic<bool> &CliSignals::pending()
{
    return g_interrupted;
}

int CliSignals::exitStatus()
{
    const int sig = g_signal.load();
    return 128 + (sig ? sig : SIGINT);
}

void CliSignals::drain()
{
    char buf[16];
    while (read(g_pipe[0], buf, sizeof buf) > 0) {
        ++m_count;
        emit interrupted(m_count);
    }
}

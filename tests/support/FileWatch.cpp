#include "tests/support/FileWatch.h"

#include <QFile>

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

namespace fixtures {

FileWatch::FileWatch(const QString &path, Use use) : m_fd(inotify_init1(IN_CLOEXEC | IN_NONBLOCK))
{
    if (m_fd >= 0)
        m_watch = inotify_add_watch(m_fd, QFile::encodeName(path).constData(), use == Use::Open ? IN_OPEN : IN_ACCESS);
}

FileWatch::~FileWatch()
{
    if (m_fd >= 0)
        ::close(m_fd);
}

bool FileWatch::wait(int msecs)
{
    pollfd ready{m_fd, POLLIN, 0};
    if (!valid() || ::poll(&ready, 1, msecs) != 1)
        return false;
    // Every event queued so far: one use is all that is asked about.
    alignas(inotify_event) char events[4096];
    bool used = false;
    for (ssize_t n; (n = ::read(m_fd, events, sizeof events)) > 0;)
        for (ssize_t at = 0; at < n;) {
            const auto *event = reinterpret_cast<const inotify_event *>(events + at);
            used |= (event->mask & (IN_OPEN | IN_ACCESS)) != 0;
            at += ssize_t(sizeof(inotify_event) + event->len);
        }
    return used;
}

} // namespace fixtures

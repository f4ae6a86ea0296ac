#pragma once

// What the programs and the worker server say to each other over their
// socket (SOCK_SEQPACKET, one message per packet).

#include <QtGlobal>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>

namespace vx {

// The server's end of the socket, in the server.
inline constexpr int kWorkerSocketFd = 3;
inline constexpr size_t kWorkerMaxRequest = 64 * 1024;

// 'R': run the command that follows ('\0'-separated arguments), its report
// pipe passed along; 'K': kill run id.
struct WorkerRequest {
    char type;
    quint64 id;
    quint64 cpuSeconds;
};

// 'X': run id has ended with this wait status (-1: it could not start).
struct WorkerEnded {
    char type;
    quint64 id;
    int status;
};

inline ssize_t sendRequest(int sock, const void *data, size_t size, int fd)
{
    iovec iov{const_cast<void *>(data), size};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    if (fd >= 0) {
        msg.msg_control = control;
        msg.msg_controllen = sizeof control;
        cmsghdr *c = CMSG_FIRSTHDR(&msg);
        c->cmsg_level = SOL_SOCKET;
        c->cmsg_type = SCM_RIGHTS;
        c->cmsg_len = CMSG_LEN(sizeof(int));
        std::memcpy(CMSG_DATA(c), &fd, sizeof fd);
    }
    ssize_t n;
    while ((n = ::sendmsg(sock, &msg, MSG_NOSIGNAL)) < 0 && errno == EINTR) {
    }
    return n;
}

inline ssize_t receiveRequest(int sock, void *data, size_t size, int *fd)
{
    iovec iov{data, size};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    ssize_t n;
    while ((n = ::recvmsg(sock, &msg, MSG_CMSG_CLOEXEC)) < 0 && errno == EINTR) {
    }
    *fd = -1;
    for (cmsghdr *c = CMSG_FIRSTHDR(&msg); n > 0 && c; c = CMSG_NXTHDR(&msg, c))
        if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_RIGHTS)
            std::memcpy(fd, CMSG_DATA(c), sizeof *fd);
    return n;
}

} // namespace vx

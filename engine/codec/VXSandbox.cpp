#include "engine/codec/VXSandbox.h"

#include "engine/codec/VXWorkerProtocol.h"

#include <QFile>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/landlock.h>
#include <linux/seccomp.h>
#include <seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <system_error>
#include <vector>

// Newer than Debian 12's kernel headers; the kernel says which it knows.
#ifndef LANDLOCK_ACCESS_FS_TRUNCATE
#define LANDLOCK_ACCESS_FS_TRUNCATE (1ULL << 14)
#endif

namespace vx {
namespace {

QString errnoText() { return QString::fromStdString(std::generic_category().message(errno)); }

// Calls a codec run has no use for: the way out for a process taken over by
// a crafted file. Any of them kills the process (SIGSYS), which fails the file.
// Compiled once, in the server before it forks: building the program with
// libseccomp costs milliseconds, installing it in a child microseconds.
const std::vector<sock_filter> &escapeFilter(QString *why)
{
    static QString failure;
    static const std::vector<sock_filter> program = [] {
        std::vector<sock_filter> compiled;
        scmp_filter_ctx ctx = seccomp_init(SCMP_ACT_ALLOW);
        if (!ctx) {
            failure = QStringLiteral("seccomp unavailable");
            return compiled;
        }
        static const char *const denied[] = {
            "socket", "socketpair", "connect", "bind", "listen", "accept", "accept4", "sendto", "sendmmsg",
            "execve", "execveat", "ptrace", "process_vm_readv", "process_vm_writev", "mount", "umount2",
            "pivot_root", "chroot", "unshare", "setns", "bpf", "perf_event_open", "userfaultfd", "keyctl",
            "add_key", "request_key", "init_module", "finit_module", "kexec_load", "io_uring_setup",
        };
        int err = 0;
        for (const char *name : denied) {
            const int nr = seccomp_syscall_resolve_name(name);
            if (nr != __NR_SCMP_ERROR && (err = seccomp_rule_add(ctx, SCMP_ACT_KILL_PROCESS, nr, 0)) < 0)
                break;
        }
        // libseccomp 2.5 exports only to a file descriptor.
        const int fd = err < 0 ? -1 : ::memfd_create("seccomp", MFD_CLOEXEC);
        if (fd >= 0 && (err = seccomp_export_bpf(ctx, fd)) >= 0) {
            const off_t size = ::lseek(fd, 0, SEEK_END);
            compiled.resize(size_t(size) / sizeof(sock_filter));
            if (size <= 0 || ::pread(fd, compiled.data(), size_t(size), 0) != size)
                compiled.clear();
        }
        if (fd >= 0)
            ::close(fd);
        if (compiled.empty())
            failure = QStringLiteral("seccomp: %1").arg(QString::fromLocal8Bit(std::strerror(err < 0 ? -err : errno)));
        seccomp_release(ctx);
        return compiled;
    }();
    if (why)
        *why = failure;
    return program;
}

bool denyEscapes(QString *why)
{
    const std::vector<sock_filter> &program = escapeFilter(why);
    if (program.empty())
        return false;
    const sock_fprog fprog{static_cast<unsigned short>(program.size()), const_cast<sock_filter *>(program.data())};
    if (::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &fprog, 0, 0) != 0) {
        *why = QStringLiteral("seccomp: %1").arg(errnoText());
        return false;
    }
    return true;
}

int landlockAbi()
{
    const long abi = ::syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION);
    return abi < 0 ? 0 : int(abi);
}

// Every file-system action the kernel can police is handled, so whatever
// is not granted below is refused: other files, new files, folders.
bool limitFiles(const SandboxGrant &grant, int abi, QString *why)
{
    landlock_ruleset_attr attr{};
    attr.handled_access_fs = (LANDLOCK_ACCESS_FS_MAKE_SYM << 1) - 1;
    if (abi >= 2)
        attr.handled_access_fs |= LANDLOCK_ACCESS_FS_REFER;
    if (abi >= 3)
        attr.handled_access_fs |= LANDLOCK_ACCESS_FS_TRUNCATE;
    const int ruleset = int(::syscall(SYS_landlock_create_ruleset, &attr, sizeof attr, 0));
    if (ruleset < 0) {
        *why = QStringLiteral("landlock: %1").arg(errnoText());
        return false;
    }
    auto allow = [&](const QString &path, __u64 access) {
        const int fd = ::open(QFile::encodeName(path).constData(), O_PATH | O_CLOEXEC);
        if (fd < 0)
            return true;  // nothing there to allow; the run fails on its own
        landlock_path_beneath_attr rule{access & attr.handled_access_fs, fd};
        const long r = ::syscall(SYS_landlock_add_rule, ruleset, LANDLOCK_RULE_PATH_BENEATH, &rule, 0);
        ::close(fd);
        return r == 0;
    };
    bool ok = true;
    for (const QString &path : grant.readable)
        ok = ok && allow(path, LANDLOCK_ACCESS_FS_READ_FILE);
    for (const QString &path : grant.writable)
        ok = ok && allow(path, LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_WRITE_FILE | LANDLOCK_ACCESS_FS_TRUNCATE);
    ok = ok && ::syscall(SYS_landlock_restrict_self, ruleset, 0) == 0;
    if (!ok)
        *why = QStringLiteral("landlock: %1").arg(errnoText());
    ::close(ruleset);
    return ok;
}

} // namespace

void prepareSandbox() { escapeFilter(nullptr); }

SandboxGrant grantFor(const QStringList &command)
{
    SandboxGrant grant;
    const QString verb = command.value(0);
    if (verb == QLatin1String("transcode") || verb == QLatin1String("lossless")) {
        grant.readable << command.value(1);
        grant.writable << command.value(2);
    } else if (verb == QLatin1String("measure") || verb == QLatin1String("probe") || verb == QLatin1String("play")) {
        grant.readable << command.value(1);
    } else if (verb == QLatin1String("measure-album")) {
        grant.readable << measureAlbumTracks(command.mid(1));
    } else {
        grant.readable << QStringLiteral("/");
    }
    return grant;
}

QString attemptEscapeForTest(const QString &what)
{
    if (what == QLatin1String("socket")) {
        const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        return fd >= 0 ? QStringLiteral("opened a socket") : QStringLiteral("socket refused");
    }
    if (what == QLatin1String("exec")) {
        ::execl("/bin/true", "true", static_cast<char *>(nullptr));
        return QStringLiteral("exec refused");
    }
    if (what.startsWith(QLatin1String("open:"))) {
        const int fd = ::open(QFile::encodeName(what.mid(5)).constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        if (fd < 0)
            return QStringLiteral("open refused: %1").arg(errnoText());
        ::close(fd);
        return QStringLiteral("wrote outside the grant");
    }
    return {};
}

bool enterSandbox(const SandboxGrant &grant, QString *note)
{
    QString why;
    QStringList missing;
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) {
        if (note)
            *note = QStringLiteral("no_new_privs: %1").arg(errnoText());
        return false;
    }
    if (!denyEscapes(&why)) {
        if (note)
            *note = why;
        return false;
    }
    if (const int abi = landlockAbi(); abi > 0) {
        if (!limitFiles(grant, abi, &why)) {
            if (note)
                *note = why;
            return false;
        }
    } else {
        missing << QStringLiteral("Landlock (file access is not limited)");
    }
    if (note)
        *note = missing.join(QStringLiteral(", "));
    return true;
}

} // namespace vx

#pragma once

// The cage a worker child runs its codec work in. A decoder exploited by a
// crafted file then holds a process that cannot reach the network, start a
// program, trace another process or touch any file but the ones its run was
// given, and that cannot gain privileges to get out.

#include <QString>
#include <QStringList>

namespace vx {

struct SandboxGrant {
    QStringList readable;  // files the run reads
    QStringList writable;  // files the run writes (they exist already)
};

// Confines the calling process for good, before it starts any thread:
// no new privileges; a seccomp filter that kills the process on network
// sockets, execve, ptrace and the like; a Landlock rule set that allows only
// the granted files. What the kernel cannot do is skipped, and *note (when
// given) says what; false only when a step the kernel offers failed.
bool enterSandbox(const SandboxGrant &grant, QString *note = nullptr);

// Builds what every cage shares (the seccomp program) ahead of time; the
// worker server calls it before it forks its first child.
void prepareSandbox();

// The grant of a worker command ("transcode IN OUT ...", "lossless IN OUT ...", "measure FILE ...",
// "probe FILE", "play FILE ...", "measure-album [--flags N] FILE..."): its input to read, its
// output to write. Commands that take files as they come get read access
// everywhere and write access nowhere.
SandboxGrant grantFor(const QStringList &command);

// Test seam: does what a taken-over decoder might ("socket", "exec", or
// "open:PATH" to write a file outside the grant). In a sandbox, the process
// dies of it or is refused; returns what happened when it survives.
QString attemptEscapeForTest(const QString &what);

} // namespace vx

#pragma once

#include <QString>

// The process's private temporary directory:
//   <temp>/evenloud-<uid>/<pid>-<random>/   (mode 0700)
// where <temp> is $TMPDIR, else /var/tmp when /tmp is held in RAM, else /tmp,
// next to a lock file "<pid>-<random>.lock" that the process holds with
// flock() for as long as the directory is its own. The kernel drops the
// lock when the process dies, so a cleaner can tell a dead process's leftovers
// from a live one's files without trusting pids, which get reused.
namespace VXTempDir {

// The directory, created (with its lock) when missing. Empty on failure.
QString path();
// A new empty file in the directory named after base and ext (free name,
// created exclusively under one process-wide lock, so two jobs with the same
// base name never share a path). Empty on failure.
QString reserveFile(const QString &base, const QString &ext);
// Removes this process's directory and lock, and every sibling whose owner
// has died. A live process's directory is never touched.
void clean();
// The folder holding every process's directory (for tests).
QString rootPath();

} // namespace VXTempDir

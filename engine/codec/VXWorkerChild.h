#pragma once

// The worker child's side: what one forked child runs, caged, its reports
// going up the pipe (or the session socket) on standard output as frames
// (VXWorkerProtocol.h). The codec work itself is the in-process backend.

#include <QStringList>

namespace vx {

// One forked child's work: a command ("transcode", "measure",
// "measure-album", "probe", "play") or a session of them ("serve"). Its exit code.
int runWorkerCommand(QStringList args);

} // namespace vx

#pragma once

#include <QString>
#include <functional>

// The process's one diagnostic log: English lines to standard error.
// Thread-safe; each call writes one whole line.
void VXLog(const QString &line);

// Tests capture the log by installing a sink; an empty function restores
// standard error. Returns the previous sink.
using VXLogSink = std::function<void(const QString &line)>;
VXLogSink VXSetLogSink(VXLogSink sink);

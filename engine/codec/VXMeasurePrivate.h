#pragma once

// The measuring loop itself, for the codec layer's own callers: the worker's
// measure command and a transcoding whose loudness filter only measures.

#include "engine/codec/VXLoudnessMeter.h"

#include <functional>

class VXCancel;

namespace vx {

// Measures here, in this process, as VXMeasureFile describes. progress, when
// given, hears 0..99 as the best stream is read, then 100 once the figures
// are in; keep, when given, receives the best stream's meter with its state,
// for figures over several files.
bool measureHere(const QString &path, int flags, VXLoudness *out, QString *why, const VXCancel *cancel,
                 std::map<int, VXLoudness> *others, const std::function<void(int)> &progress = {},
                 std::unique_ptr<VXFrameMeter> *keep = nullptr);

// VXMeasureFile with progress as measureHere reports it, from the worker
// child when there is one.
bool measure(const QString &path, int flags, VXLoudness *out, QString *why, const VXCancel *cancel,
             std::map<int, VXLoudness> *others, const std::function<void(int)> &progress);

} // namespace vx

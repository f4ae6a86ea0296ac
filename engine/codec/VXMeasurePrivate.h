#pragma once

// The measuring loop itself, in this process: the in-process backend's
// measure and measureAlbum, and a transcoding that measures its result.

#include "engine/codec/VXCodecBackend.h"
#include "engine/codec/VXLoudnessMeter.h"

#include <functional>

class VXCancel;

namespace vx {

// Measures as VXMeasureFile describes. progress, when given, hears 0..99 as
// the best stream is read, then 100 once the figures are in; keep, when
// given, receives the best stream's meter with its state, for figures over
// several files.
VXResult<Measurement> measureHere(const QString &path, int flags, const VXCancel *cancel,
                                  const std::function<void(int)> &progress = {},
                                  std::unique_ptr<VXFrameMeter> *keep = nullptr);

// Every track, then the album's figure over their meters together; a track
// that fails has its reason, and the album stays unmeasured when none
// measures. Fails only when cancelled.
VXResult<VXAlbumLoudness> measureAlbumHere(const QStringList &paths, int flags, const VXCancel *cancel);

} // namespace vx

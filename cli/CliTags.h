#pragma once

// Album mode and ReplayGain tags: the measuring that comes before the batch
// (albums) or instead of it (tags only).

#include "cli/CliOptions.h"
#include "cli/CliReport.h"
#include "engine/VXAudioGain.h"

#include <functional>
#include <optional>
#include <vector>

using CliAlbums = std::vector<std::optional<VXAlbumMember>>;  // by result index

// Groups the inputs of results[indices] into albums, measures each album on
// the job pool and fills in each result's album figures. A track whose album
// could not be measured has no entry; so has every track when cancel
// stops the measuring.
CliAlbums cliMeasureAlbums(QList<CliFileResult> &results, const QList<int> &indices, const CliOptions &opt,
                           float targetLufs, const VXCancel &cancel);

// Measures each of results[indices] (unless its album already did) and
// writes its tags; fills in the outcome and what was written. A file that
// cancel stops ends as cancelled, untouched.
void cliWriteTags(QList<CliFileResult> &results, const QList<int> &indices, const CliAlbums &albums,
                  const CliOptions &opt, const VXCancel &cancel, const std::function<void(const QString &)> &say);

#pragma once

// ReplayGain 2.0 tags: the gain a player applies itself, the audio left as
// it is, byte for byte.

#include "engine/VXPlacement.h"
#include "engine/codec/VXError.h"
#include "engine/codec/VXLoudnessMeter.h"

#include <QString>
#include <cmath>

inline constexpr double kVXReplayGainReference = -18.0;  // LUFS
inline constexpr double kVXOpusR128Reference = -23.0;    // LUFS, RFC 7845

struct VXReplayGain {
    double trackGainDb = NAN;
    double trackPeak = NAN;   // linear: the true peak as an amplitude
    double albumGainDb = NAN; // NaN: no album tags
    double albumPeak = NAN;
};

// NaN gains for silence (nothing passes the gate): there is no level to
// bring to the reference.
VXReplayGain VXReplayGainFor(const VXLoudness &track, const VXLoudness *album);

// Writes the tags into path itself, by its container (ID3v2 TXXX in MP3 and
// WAV, Vorbis comments in FLAC and Ogg, R128_* in Opus, freeform atoms in
// MP4, attributes in ASF). Other tags stay.
VXResult<> VXWriteReplayGainTags(const QString &path, const VXReplayGain &gains);

// The safe way: a copy of input is tagged in the private temporary folder,
// then replaces input atomically (outFolder empty) or is placed in outFolder
// under input's name, so a kill leaves either file whole.
VXPlacement::Result VXTagFile(const QString &input, const QString &outFolder, const VXReplayGain &gains,
                              bool keepModificationTime, const VXPlacement::BeforePublish &beforePublish = {});

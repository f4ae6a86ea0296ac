#pragma once

// The tag that records a lossless gain, so it can be undone exactly: a
// TXXX frame in MP3, a Vorbis comment in Opus, a freeform atom in MP4,
// all named EVENLOUD_LOSSLESS, holding the record the codec layer made.
// Tags are read and written here with TagLib; the audio is not parsed.

#include "engine/codec/VXError.h"

#include <QString>

inline constexpr char kVXLosslessTag[] = "EVENLOUD_LOSSLESS";

// Whether a lossless gain can be recorded in path's container (by its
// extension, as TagLib tells containers).
bool VXLosslessTaggable(const QString &path);

// The record in path, or empty when there is none.
QString VXReadLosslessRecord(const QString &path);

// Writes record into path. Opus: R128_TRACK_GAIN and R128_ALBUM_GAIN were
// relative to the header gain that changed, so they go, and their values
// are kept in the record (with keepR128 they stay too: new ones are written after).
VXResult<> VXWriteLosslessRecord(const QString &path, const QString &record, bool keepR128 = false);

// Removes the record from path; Opus gets back the R128 tags it had before.
VXResult<> VXRemoveLosslessRecord(const QString &path, const QString &record);

#pragma once

// The one encoding of everything the programs, the worker server and its
// children say to each other: a frame is a 4-byte big-endian length, then
// that many bytes holding one CBOR map. Every frame is bounded, so a broken
// or hostile child cannot make the program allocate without limit; a frame
// that breaks a rule is refused with the reason, and the stream it came on
// is not read further (its boundaries can no longer be trusted).

#include "engine/codec/VXError.h"

#include <QByteArray>
#include <QCborMap>

namespace vx {

inline constexpr qsizetype kFrameHeaderBytes = 4;
// A cover picture (at most 64 MB, see VXWorkerProtocol.h) with its keys: no
// message of ours comes near it otherwise.
inline constexpr qsizetype kMaxFrameBytes = 64 * 1024 * 1024 + 4096;

// VXError codes of a frame refused.
enum FrameError {
    kFrameEnd = 1,    // the stream ended cleanly between two frames
    kFrameTruncated,  // it ended inside one
    kFrameOversize,   // the header announced more than kMaxFrameBytes
    kFrameMalformed,  // the bytes are no single CBOR map
    kFrameIo,         // reading or writing failed
};

QByteArray encodeFrame(const QCborMap &message);
// One whole frame held in bytes (a packet): its map, or why it is none.
VXResult<QCborMap> decodeFrame(const QByteArray &bytes);
// The payload's length that a frame's header announces, when within bounds.
VXResult<qsizetype> frameLength(const QByteArray &header);
// The payload alone (after the header) as a map.
VXResult<QCborMap> decodePayload(const QByteArray &payload);

// Blocking I/O on a descriptor (a pipe or a stream socket), retried across
// signals and short transfers. Writes use write(2) only and reads read(2)
// only, which the worker child's sandbox allows.
VXResult<> writeFrame(int fd, const QCborMap &message);
// The same on a stream socket whose peer may be gone: send(2) without
// SIGPIPE, for the program's side (the child may not call send).
VXResult<> sendFrame(int sock, const QCborMap &message);
VXResult<QCborMap> readFrame(int fd);

} // namespace vx

#pragma once

// What the programs, the worker server and its children say to each other.
// Every message is one frame (VXFrame.h): a CBOR map whose key "m" names it.
//
// A child to the program, on its report pipe (one run) or its session socket:
//   progress {percent}              work done, 0..100
//   log      {text}                 a diagnostic line for the program's log
//   printOut {filter, bytes}        a main-stream filter's print-out as it was freed
//   output   {loudness}             the measurement: the written file, or the measured input
//   stream   {index, loudness}      a further audio stream, by input index
//   input    {loudness}             the main stream as decoded
//   album    {tracks, album}        an album's figures: [{loudness, reason}], loudness
//   value    {name, bytes}          a probe's named result (length, picture), or
//                                   "lossless": what a lossless change did, a CBOR map
//   pcm      {rate, channels, bytes}  sound to listen to: interleaved native floats
//   error    {text, domain, code, drm}  why the work failed
//   sandbox  {text}                 what the kernel could not cage
//   end      {result}               0 completed, 1 failed, 2 cancelled; nothing follows
// The program to a session child (see WorkerSession):
//   run      {args}                 one command; its reports follow, up to its end
// The program to the worker server, one frame a SOCK_SEQPACKET packet:
//   run      {id, cpu, args}        fork a child for args, its report pipe passed along
//   kill     {id}                   kill run id's child
// The worker server to the program:
//   ended    {id, status}           run id's wait status (-1: it could not start)
//
// A loudness is a map of the figures a message carries: I, TP, LRA,
// thresh, maxS, maxM, curve (an array) and steps (bytes: 16-bit little-endian
// hundredths of an LU), each only where it is sent. A reader given steps
// and no curve makes the curve from the steps.

#include "engine/codec/VXLoudnessMeter.h"

#include <QCborArray>
#include <QCborMap>
#include <QStringList>
#include <QtGlobal>
#include <memory>
#include <sys/types.h>
#include <vector>

class VXFilter;

namespace vx {

// The server's end of the socket, in the server.
inline constexpr int kWorkerSocketFd = 3;
// A request to the server is one packet; a command's arguments (paths) fit.
inline constexpr size_t kWorkerMaxRequest = 64 * 1024;
// A named result bigger than this is no result of ours: a cover picture
// over 50 MB is not shown anyway.
inline constexpr qsizetype kMaxValueBytes = 64 * 1024 * 1024;

// The figures a loudness message carries, as they always have: each
// command sends what its reader uses and no more.
enum LoudnessFields {
    kFigures = 1,      // integrated, true peak, range
    kGate = 2,         // threshold
    kMaxima = 4,       // max short-term, max momentary
    kCurve = 8,        // the short-term curve, to 0.01 LU as a picture needs
    kInputFigures = 16, // integrated and range without the true peak
    kSteps = 32,        // the 100 ms steps, exactly: the curve and an album follow from them
};

QCborMap loudnessToCbor(const VXLoudness &l, int fields);
VXLoudness loudnessFromCbor(const QCborMap &map);
QCborMap albumToCbor(const VXAlbumLoudness &album);
VXAlbumLoudness albumFromCbor(const QCborMap &message);

QCborMap message(const char *name);
QCborArray toCbor(const QStringList &list);
QStringList stringsFromCbor(const QCborValue &array);

// "--filter NAME [--attr KEY=VALUE]..." for each filter, in order.
QStringList filterArguments(const std::vector<std::shared_ptr<VXFilter>> &filters);
// One option of those read back: "--filter" appends a filter, "--attr" sets
// one of the last one's attributes. False for any other option, or a filter
// that does not exist.
bool readFilterOption(const QString &option, const QString &value, std::vector<std::shared_ptr<VXFilter>> &filters);

// The measure-album command, "measure-album [--flags N] TRACK...", N being
// VXMeasureFlag bits: written with the flags, read with or without them.
QStringList measureAlbumCommand(const QStringList &tracks, int flags);
// Its arguments after the verb: the tracks, and the flags (0 when left out).
QStringList measureAlbumTracks(const QStringList &args, int *flags = nullptr);

// One packet on the server's socket, a descriptor passed along when fd >= 0.
ssize_t sendRequest(int sock, const void *data, size_t size, int fd);
ssize_t receiveRequest(int sock, void *data, size_t size, int *fd);

} // namespace vx

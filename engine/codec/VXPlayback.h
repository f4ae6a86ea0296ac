#pragma once

// Sound to listen to: a file decoded from a position through filters (the
// job's own gain and limiter, or a plain gain), handed over as interleaved
// 32-bit floats as it is made. The worker's "play" command streams it over
// its pipe, whose back-pressure paces the decoding to the listener; the
// program's codec backend says where it runs (VXCodecBackend.h).

#include "engine/codec/VXCancel.h"
#include "engine/codec/VXError.h"

#include <QString>
#include <QStringList>
#include <functional>
#include <memory>
#include <vector>

class VXFilter;

namespace vx {

struct PlayRequest {
    QString input;
    // Where the sound starts, from the start of the file's audio. The first
    // sample handed over is the one at this time exactly (silence first
    // where the audio starts later), so two requests from one position line
    // up sample for sample, whatever their filters.
    qint64 fromUs = 0;
    // At the file's own rate, instantiated as a job's pass instantiates them.
    std::vector<std::shared_ptr<VXFilter>> filters;
    int sampleRate = 0;  // of what is handed over; 0: the file's own
    int channels = 0;    // 0: the file's own; a mono file asked for two sounds alike on both
};

struct PcmFormat {
    int sampleRate = 0;
    int channels = 0;
    bool operator==(const PcmFormat &) const = default;
};

// Each block as it is made: frames of format.channels interleaved floats.
// False stops the decoding (the listener has gone).
using PcmSink = std::function<bool(const PcmFormat &format, const float *samples, qsizetype frames)>;

// Decodes on this thread to the end of the file, a refusal of the sink or a
// cancel (VXCancelledError()). A sink's refusal is no failure.
VXResult<> playHere(const PlayRequest &request, const VXCancel &cancel, const PcmSink &sink);

// The worker command of a request: "play IN --from US [--rate N]
// [--channels N] [--filter NAME [--attr KEY=VALUE]...]...".
QStringList playCommand(const PlayRequest &request);
// Its arguments after the verb, read back; false when they are no request.
bool parsePlayCommand(const QStringList &args, PlayRequest *request);

} // namespace vx

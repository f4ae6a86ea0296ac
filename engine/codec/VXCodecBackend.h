#pragma once

// Where codec work runs: in this process, or in a worker child (VXWorker.h).
// The program picks one backend at start-up (vx::useWorkerProcess, or
// vx::setWorkerProgram); every entry point of the codec layer then asks it.
// The worker child runs the in-process backend itself.

#include "engine/codec/VXError.h"
#include "engine/codec/VXLossless.h"
#include "engine/codec/VXLoudnessMeter.h"
#include "engine/codec/VXPlayback.h"
#include "engine/codec/VXTranscode.h"

#include <QByteArray>
#include <QString>
#include <functional>
#include <map>
#include <memory>

class VXCancel;

namespace vx {

struct Pipeline;

using Progress = std::function<void(int percent)>;

// What one measured file adds up to.
struct Measurement {
    VXLoudness loudness;
    std::map<int, VXLoudness> others;  // further audio streams, with VXMeasureOtherStreams
};

// What an import learns of a file.
struct ProbeResult {
    quint64 length = 0;  // VXTimebase ticks, never 0
    QByteArray picture;  // the encoded cover, when there is one
};

class CodecBackend {
public:
    virtual ~CodecBackend() = default;

    // Ready to transcode input to output: the opened pipeline where the work
    // runs here, nullptr where it runs elsewhere.
    virtual VXResult<std::unique_ptr<Pipeline>> open(const QString &input, const QString &output) const = 0;
    // One transcoding, as vx::transcode describes; a cancel stops it at once.
    // The main stream's filters have their print-outs in their logs after
    // the pipeline has been released.
    virtual VXResult<TranscodeResult> transcode(const TranscodeRequest &request, std::unique_ptr<Pipeline> &pipeline,
                                                const VXCancel &cancel, const Progress &progress) const = 0;
    // VXMeasureFile with progress: 0..99 as the file is read, 100 once done.
    virtual VXResult<Measurement> measure(const QString &path, int flags, const VXCancel *cancel,
                                          const Progress &progress) const = 0;
    // VXMeasureAlbum; flags as it passes them on.
    virtual VXResult<VXAlbumLoudness> measureAlbum(const QStringList &paths, int flags,
                                                   const VXCancel *cancel) const = 0;
    // VXDemuxerContext's questions; the error as initWithFilename gives it.
    virtual VXResult<ProbeResult> probe(const QString &path) const = 0;
    // A gain written into the copy's gain fields (vx::losslessHere).
    virtual VXResult<LosslessResult> lossless(const LosslessRequest &request, const VXCancel *cancel) const = 0;
    // Sound to listen to, as vx::playHere hands it over, on this thread
    // until the end; a cancel stops it at once.
    virtual VXResult<> play(const PlayRequest &request, const VXCancel &cancel, const PcmSink &sink) const = 0;
};

// The backend of this program: the in-process one until one is chosen.
// Both backends live as long as the program, so a reference stays good.
const CodecBackend &codecBackend();
void setCodecBackend(const CodecBackend &backend);
const CodecBackend &inProcessBackend();
// Runs work in the worker program's children (VXWorkerBackend.cpp).
const CodecBackend &workerBackend();

// The error of a file's probe, as VXDemuxerContext callers read it.
VXError probeError(int code, const QString &description, bool drm = false);

} // namespace vx

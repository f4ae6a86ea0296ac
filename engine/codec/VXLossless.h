#pragma once

// A gain without re-encoding: the input copied byte for byte, then only the
// gain fields its format has changed in the copy. Opus in Ogg takes the gain
// exactly (its header's output gain, 1/256 dB); MP3 takes it in whole steps
// of 2^(1/4) (its 8-bit global_gain per granule and channel). Every other
// byte, tags and other streams included, stays as it was. Runs where codec
// work runs (a worker child): the file's bytes are parsed nowhere else.

#include "engine/codec/VXError.h"
#include "engine/codec/VXLoudnessMeter.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

class VXCancel;

namespace vx {

// One step of a global_gain field: 20 log10(2^(1/4)) dB.
inline constexpr double kGainStepDb = 1.5051499783199060;

struct LosslessRequest {
    QString input;
    QString output;       // exists; overwritten
    double gainDb = 0.0;  // Opus: applied to 1/256 dB
    int steps = 0;        // MP3: whole steps
    QString previous;     // the input's record of an earlier change, if it has one
    bool undo = false;    // restore the fields previous records, instead of a gain
    int measureOutput = -1;  // -1 no, else the VXMeasureFlag bits to measure the output with
};

struct LosslessResult {
    QString kind;          // "opus" or "mp3"
    double appliedDb = 0;  // the gain this run applied (taken off, for an undo)
    int steps = 0;         // step formats: the steps this run added
    long fields = 0;       // gain fields that carry audio
    long clamped = 0;      // of those, held at a limit of the field
    QString record;        // the record the output should carry; empty after an undo
    VXLoudness output;     // with measureOutput
};

// Does the work in this process; a cancel stops it between packets. An
// input of another format, or one that does not parse, is an error with its
// reason: the caller then normalises it the usual way.
VXResult<LosslessResult> losslessHere(const LosslessRequest &request, const VXCancel *cancel);

// The request as worker arguments ("lossless IN OUT --gain ..."), and back.
QStringList losslessArguments(const LosslessRequest &request);
bool parseLosslessArguments(const QStringList &args, LosslessRequest *request);
// The result but its measurement, as the worker sends it back.
QByteArray losslessToCbor(const LosslessResult &result);
LosslessResult losslessFromCbor(const QByteArray &bytes);

} // namespace vx

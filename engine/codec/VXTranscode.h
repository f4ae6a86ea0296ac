#pragma once

// One file's codec work from start to end, returning when it is done: open,
// decode, filter, encode, mux, drain. VXTranscoding wraps it for callers that
// want it on a thread of its own or in a worker process.

#include "engine/codec/VXCancel.h"
#include "engine/codec/VXError.h"
#include "engine/codec/VXLoudnessMeter.h"

#include <QString>
#include <functional>
#include <map>
#include <memory>
#include <vector>

class VXFilter;

namespace vx {

struct Pipeline;

struct TranscodeRequest {
    QString input;
    QString output;
    std::vector<std::shared_ptr<VXFilter>> filters;  // the main audio stream's
    // Further audio streams (by input index) with filters of their own; the
    // others are copied unless measureOthers asks for them to be measured.
    std::map<int, std::vector<std::shared_ptr<VXFilter>>> streamFilters;
    bool measureOthers = false;
    // The main stream as decoded, where loudnorm's meter weighs its layout
    // wrong (see VXLoudnormWeighsAlike): its loudness and range.
    bool measureInput = false;
    int measureOutput = -1;  // -1 no, else the VXMeasureFlag bits to measure with
};

struct TranscodeResult {
    VXLoudness output;                      // when measureOutput was asked
    VXLoudness input;                       // when measureInput was asked and applied
    std::map<int, VXLoudness> otherAudio;   // when measureOthers was asked
};

// Runs the request to its end. `pipeline` is the opened input and output
// (opened here when empty); it is left holding the filter graphs, so the
// caller decides when the filters print their records (as they are freed).
// Progress rises from 0 to 99 as the main stream is encoded (reported from
// the encoding thread, which ends before this returns), and 100 comes once
// the file is written and closed. A cancel is polled between packets and
// ends it with VXCancelledError().
VXResult<TranscodeResult> transcode(const TranscodeRequest &request, std::unique_ptr<Pipeline> &pipeline,
                                    const VXCancel &cancel, const std::function<void(int percent)> &progress);

// Called once from each program's main(), before any codec work.
void configureProcess();

} // namespace vx

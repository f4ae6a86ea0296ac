#pragma once

// The libav objects of one transcoding and their set-up: input and decoder,
// encoder and output with the copied streams, and the filter graph between.

#include "engine/codec/VXLibav.h"

#include <QString>
#include <memory>
#include <utility>
#include <vector>

class VXFilter;
struct VXFilterLogState;

namespace vx {

struct Pipeline {
    InputPtr input;
    int audioIndex = -1;
    CodecPtr decoder;
    OutputPtr output;
    CodecPtr encoder;
    int outAudioIndex = -1;
    // Input stream index -> output stream index, -1 when not carried over.
    std::vector<int> streamMap;
    // Length of the input's audio in microseconds; 0 when unknown.
    int64_t durationUs = 0;

    GraphPtr graph;
    AVFilterContext *source = nullptr;
    // What the graph's source was set up for: the decoder's first format.
    int sourceRate = 0;
    AVSampleFormat sourceFormat = AV_SAMPLE_FMT_NONE;
    AVChannelLayout sourceLayout{};
    bool matchesSource(const AVFrame *frame) const;
    AVFilterContext *sink = nullptr;
    std::vector<std::pair<const void *, std::shared_ptr<VXFilterLogState>>> routedLogs;

    // Opens everything up to the output's initialisation (the output file is
    // created); nullptr with a reason when the pair cannot be transcoded.
    static std::unique_ptr<Pipeline> open(const QString &inPath, const QString &outPath, QString *why);
    // decoder -> filters -> back to the encoder's rate, format and layout.
    bool buildGraph(const std::vector<std::shared_ptr<VXFilter>> &filters, QString *why);
    // Frees the graph (filters print their records now), then stops routing
    // their messages.
    void releaseGraph();
    ~Pipeline();

private:
    bool openDecoder(QString *why);
    bool openEncoder(const QString &inPath, QString *why);
    void mapOtherStreams();
};

} // namespace vx

#pragma once

// The libav objects of one transcoding and their set-up: the input, one lane
// per audio stream that is decoded and encoded again, the output with every
// other stream copied, in the input's order.

#include "engine/codec/VXError.h"
#include "engine/codec/VXLibav.h"

#include <QString>
#include <memory>
#include <utility>
#include <vector>

class VXFilter;
struct VXFilterLogState;

namespace vx {

// One audio stream: decoder -> filter graph -> encoder.
struct Lane {
    int inIndex = -1;
    int outIndex = -1;
    CodecPtr decoder;
    CodecPtr encoder;
    GraphPtr graph;
    AVFilterContext *source = nullptr;
    AVFilterContext *sink = nullptr;
    // What the graph's source was set up for: the decoder's first format.
    int sourceRate = 0;
    AVSampleFormat sourceFormat = AV_SAMPLE_FMT_NONE;
    AVChannelLayout sourceLayout{};
    bool matchesSource(const AVFrame *frame) const;

    Lane() = default;
    Lane(const Lane &) = delete;
    Lane &operator=(const Lane &) = delete;
    ~Lane() { av_channel_layout_uninit(&sourceLayout); }
};

struct Pipeline {
    InputPtr input;
    OutputPtr output;
    // lanes[0] is the stream a player picks (the best one); the others are
    // the further audio streams asked for.
    std::vector<std::unique_ptr<Lane>> lanes;
    // Input stream index -> lane, -1 when the stream is not decoded.
    std::vector<int> laneOf;
    // Input stream index -> output stream index, -1 when not carried over.
    std::vector<int> streamMap;
    // Length of the input's audio in microseconds; 0 when unknown.
    int64_t durationUs = 0;
    std::vector<std::pair<const void *, std::shared_ptr<VXFilterLogState>>> routedLogs;

    // Opens everything up to the output's initialisation (the output file is
    // created); the reason when the pair cannot be transcoded.
    // The audio streams in moreAudio (input indexes) get lanes of their own;
    // a stream that cannot have one is copied.
    static VXResult<std::unique_ptr<Pipeline>> open(const QString &inPath, const QString &outPath,
                                                    const std::vector<int> &moreAudio = {});
    // The other audio streams a lane could be opened for, by input index.
    std::vector<int> otherAudioStreams() const;
    // decoder -> filters -> back to the encoder's rate, format and layout.
    VXResult<> buildGraph(Lane &lane, const std::vector<std::shared_ptr<VXFilter>> &filters);
    // Frees the graphs (filters print their records now), then stops routing
    // their messages.
    void releaseGraph();
    ~Pipeline();

private:
    VXResult<> openLane(int index, const QString &inPath);
    VXResult<> mapStreams();
};

// Filter arguments as a graph description must spell them: the parser takes
// one level of quoting off before the filter reads its options.
QByteArray graphEscaped(const QByteArray &args);
// Links the chain a graph description spells ("aresample=...,aformat=...")
// from last's output to sink's input; libav's error code.
int linkGraphTail(AVFilterGraph *graph, const QByteArray &description, AVFilterContext *last, AVFilterContext *sink);

} // namespace vx

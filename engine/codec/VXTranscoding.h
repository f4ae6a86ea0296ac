#pragma once

#include "engine/codec/VXLoudnessMeter.h"

#include <QString>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>

class VXFilter;

// The transcoding callback: (state, value). State 2 reports progress 0..100;
// state 3 is the one end report: 0 completed, 1 failed, 2 cancelled.
using VXTranscodingBlock = std::function<void(int32_t state, int64_t value)>;

inline constexpr int32_t VXTranscodingStateProgress = 2;
inline constexpr int32_t VXTranscodingStateEnd = 3;
inline constexpr int64_t VXTranscodingCompleted = 0;
inline constexpr int64_t VXTranscodingFailed = 1;
inline constexpr int64_t VXTranscodingCancelled = 2;

// Decodes the input's audio, runs it through the added filters, resamples it
// back to the input's rate and encodes it with the input's codec into a file
// of the same format at the output path (overwritten if present). Cover art,
// video and subtitle streams, tags and chapters are copied unchanged.
class VXTranscoding {
public:
    // nullptr when the input cannot be read or no encoder exists for it;
    // *why (when given) then says what is wrong.
    static std::shared_ptr<VXTranscoding> initWithInput(const QString &input, const QString &output,
                                                        QString *why = nullptr);
    // Joins the thread (if any), then frees the filter graph; that is when a
    // loudnorm filter prints its measurement record.
    ~VXTranscoding();

    void addAudioFilter(std::shared_ptr<VXFilter> filter);
    // A file's further audio streams (by input stream index) are copied as
    // they are unless given filters of their own here, or measured: then
    // each is decoded, filtered and encoded again on its own. The output's
    // streams keep the input's order and dispositions either way.
    void addStreamFilter(int streamIndex, std::shared_ptr<VXFilter> filter);
    // Measures each further audio stream as it is decoded (loudness, range
    // and true peak); otherAudioLoudness() has the figures after the end report.
    void setMeasuresOtherAudio();
    std::map<int, VXLoudness> otherAudioLoudness() const;
    // Measures the main stream as it is decoded where loudnorm's own meter
    // weighs its layout's channels wrong (see VXLoudnormWeighsAlike):
    // inputLoudness() has its loudness, range and gate after the end report,
    // and is unmeasured for every other layout.
    void setMeasuresInput();
    VXLoudness inputLoudness() const;
    // Starts the work on a thread of its own and returns at once. Progress is
    // monotonic, at most about one report per percent, and exactly one end
    // report follows, after which nothing more is reported.
    void transcodingWithBlock(VXTranscodingBlock block);
    // The same work and reports, run from the calling thread: returns the end
    // report's value once it has been delivered.
    int64_t transcodingHere(VXTranscodingBlock block);
    // Asks the work to stop; returns at once from any thread.
    void cancelTranscoding();
    // Measures the written file once it is complete, before the end report,
    // with the meter that measures inputs: EBU R128 loudness and range, and
    // what the VXMeasureFlag bits add (true peak, dual mono). A file that
    // cannot be measured fails the transcoding. Set before transcodingWithBlock.
    void setMeasuresOutput(int flags);
    // After the end report: the figures of a completed, measured transcoding;
    // of one that only measures its input (a first pass with the reference
    // meter), the input's, with the true peak and the steps.
    VXLoudness outputLoudness() const;
    // After the end report of a failed transcoding: what went wrong.
    QString failureReason() const;
    // The input's length in microseconds as its headers tell; 0 when unknown
    // or when the work is handed to a worker process.
    quint64 inputDuration() const;

    VXTranscoding(const VXTranscoding &) = delete;
    VXTranscoding &operator=(const VXTranscoding &) = delete;

private:
    VXTranscoding();
    struct Private;
    std::unique_ptr<Private> d;
};

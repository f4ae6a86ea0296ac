#pragma once

// One run of an item's two-pass job, on the job's pool thread, in four
// steps: measure() what the file is, plan it (VXPlanJob, no file at hand),
// normalise() it by that plan, then verifyAndPlace() the result. The item
// is handed in and outlives the run; its reports go through sendMessage.

#include "engine/VXAudioGain.h"
#include "engine/VXJobPlan.h"
#include "engine/codec/VXError.h"

#include <QJsonObject>
#include <functional>
#include <memory>

class VXFilter;
class VXTranscoding;

class VXGainJob {
public:
    VXGainJob(VXAudioGain &item, VXGainBlock block);
    // The job's work up to its end: the result code of its end report.
    VXGainEnd run();

    // Pass 1's record as its filter printed it; empty when none is usable,
    // and then why not.
    struct Caught {
        QJsonObject record;
        QString unusable;
    };

private:
    // What pass 1 left: the figures, or why there are none to plan from.
    struct Measurement {
        std::optional<VXJobLoudness> loudness;  // nullopt: no usable record
        QString unusable;                       // then: why, for the log
    };
    // The output of pass 2 (and of its corrections).
    struct Normalised {
        VXGainResult result;
        double expectedLoudness = NAN;
    };
    enum class Pass { First, Second, Correction };

    // An error whose code is VXGainCancelled ends the job as cancelled;
    // any other fails it with the error's reason.
    static VXError cancelled() { return VXError::because(QString(), VXGainCancelled); }
    VXGainEnd end(const VXError &error);

    VXResult<Measurement> measure();
    VXResult<Caught> firstPassRecord();
    VXResult<QByteArray> runFirstPass(std::shared_ptr<VXTranscoding> pass1);
    VXResult<Normalised> normalise(const VXJobPlan &plan);
    VXResult<int> correct(const VXJobPlan &plan, VXFilter &filter, VXLoudness *output,
                          const std::function<VXResult<>(Pass)> &pass);
    // The gain in the file's own gain fields; nullopt, and the reason in
    // *fallback, when its format has none or does not parse: the file is
    // then normalised the usual way.
    VXResult<std::optional<Normalised>> normaliseLossless(const VXJobPlan &plan, QString *fallback);
    void noteFallback(const QString &why);
    VXGainEnd undoLossless();
    VXGainEnd skip(const VXJobPlan &plan);
    VXGainEnd runOnePass();
    VXGainEnd verifyAndPlace(const VXGainResult &result, double expected);

    // The loudness filter with this job's target, ceiling and meter.
    std::shared_ptr<VXFilter> makeLoudnessFilter() const;
    // Runs one pass on this thread. Second: progress maps to 50..100; a
    // correction pass reports none.
    qint64 runPass(const std::shared_ptr<VXTranscoding> &transcoding, Pass pass);
    // Runs a pass that writes the output and lets it go. Its output's
    // figures go to *output.
    VXResult<> runOutputPass(std::shared_ptr<VXTranscoding> transcoding, Pass pass, VXLoudness *output);
    // Drops the item's hold on the pass; its filters print their records now.
    void releaseTransCoding();
    void report(qint64 progress);

    VXAudioGain &m_item;
    VXGainBlock m_block;
    VXJobSettings m_settings;  // as the job started, targetLoudness the item's own
    float m_target = 0.0f;     // LUFS
    std::shared_ptr<VXFilter> m_measuringFilter;  // pass 1's, whose print-out is the record
    std::map<int, VXLoudness> m_otherStreams;     // pass 1's figures of further audio streams
    VXLoudness m_input;  // pass 1's own figures of the main stream, where loudnorm's would be wrong
};

#pragma once

// How a written file was made: the settings that decided its audio, what
// the gain did, the meter that judged it, the program, and the level the
// result measured. Every file a job writes carries it under one key of its
// container's own tag, so that a later run knows a file it already made the
// same way by reading that tag, without decoding the file.

#include "engine/VXJobSettings.h"
#include "engine/codec/VXCodecConstants.h"
#include "engine/codec/VXError.h"

#include <QString>
#include <QVariantMap>
#include <cmath>
#include <optional>

// The kind of a file whose audio is as it was, with ReplayGain tags written.
inline constexpr char kVXProvenanceTags[] = "tags";

struct VXProvenance {
    double targetLufs = NAN;  // for tags: the reference their gains lead to
    double ceilingDbtp = NAN;  // NaN for tags
    QString kind;              // "linear", "peak-capped", "limited", "one-pass" or "tags"
    bool limiter = false;
    bool dualMono = false;
    bool album = false;
    QString meter;    // VXMeterIdentity: "name/version"
    QString version;  // the program's
    // The result as measured (for tags, the file's own level).
    double integrated = NAN;  // LUFS; -inf for silence
    double truePeak = NAN;    // dBTP
    double range = NAN;       // LU

    // What a job with these settings records, the level left to fill in.
    static VXProvenance forJob(const VXJobSettings &settings, double targetLufs, const QString &kind);

    // One line of key=value pairs: "target=-16.00;ceiling=-1.00;kind=linear;...".
    QString format() const;
    // nullopt for text that is not such a line, or lacks the target, the
    // kind or the meter; keys it does not know are passed over.
    static std::optional<VXProvenance> parse(const QString &text);

    // Whether a job with settings (targetLoudness the item's own position)
    // would make this file the same way: for audio, the same target (to
    // 0.01 LU), ceiling, limiter, dual mono, album mode and meter; for tags
    // (settings.tagsOnly), the same meter, dual mono and album mode. The
    // meter counts by name, not version, and the program not at all: a
    // library re-encoded for every release of either would lose quality to
    // each lossy encoding, for a change of a few hundredths of a LU at most.
    bool matches(const VXJobSettings &settings) const;
    // The result's level as a measurement record ("input_i", "input_tp",
    // "input_lra"): what a file skipped on its record reports.
    QVariantMap measurementRecord() const;
    QString meterName() const;
};

// The file's record, read from its tag alone (no audio properties, no
// decode); nullopt when there is none, it is not ours, or the file has no tag.
std::optional<VXProvenance> VXReadProvenance(const QString &path);

// Writes the record into path itself, replacing any earlier one. A file
// whose container has no tag (AC-3) is left as it is: that is no failure.
VXResult<> VXWriteProvenance(const QString &path, const VXProvenance &provenance);

// Before anything else of a job, even a probe: the record of path when its
// settings skip files (a skip window set) and the record says the file was
// made with these settings. nullopt otherwise, without opening the file when
// nothing is skipped.
std::optional<VXProvenance> VXProvenanceSkip(const QString &path, const VXJobSettings &settings);

#pragma once

// What a change of a file's gain fields leaves behind so that it can be
// undone exactly: for MP3 and AAC the whole steps added to every 8-bit
// global_gain, and the original value of each field that hit a limit; for
// Opus the header's original output gain(s). Kept as one line of text in a
// tag of the file, and composed when a file is changed again.
//
//   v=1;kind=mp3;steps=-3;fields=4410;clamped=17:2,3:0
//   v=1;kind=opus;gain=0;delta=-1234
//
// clamped lists field numbers (each counted from the previous one) with
// their original value. Unknown keys are kept, so the engine can add its own
// (the Opus tags it removed) and an older reader still restores the fields.

#include <QString>
#include <QStringList>
#include <map>
#include <optional>
#include <vector>

namespace vx {

struct GainRecord {
    QString kind;  // "mp3", "aac" or "opus"
    // Step formats.
    int steps = 0;
    long fields = 0;               // gain fields that carry audio, in file order
    std::map<long, int> clamped;   // field number -> original value
    // Opus: each chained stream's original header gain, and what was added.
    std::vector<int> opusGains;
    int opusDelta = 0;
    // Keys this layer does not use, in order ("r128_track=-512").
    QStringList extra;

    QString text() const;
    static std::optional<GainRecord> parse(const QString &text);
};

// One run over a file's 8-bit gain fields: the steps added now on top of
// what an earlier run recorded, or the original values restored.
class StepEditor {
public:
    // steps: added now; previous: the file's record from an earlier run.
    StepEditor(int steps, const std::optional<GainRecord> &previous);
    // Restores what record says.
    static StepEditor undo(const GainRecord &record);

    // The next field that carries audio, its current value, and the range
    // the format allows it here; returns the value to write, or nullopt
    // when the field cannot be restored (the file changed since).
    std::optional<int> next(int value, int lo = 0, int hi = 255);

    long fields() const { return m_index; }
    long clampedNow() const { return m_clampedNow; }  // fields held at a limit by this run
    // The record after this run (not for an undo).
    GainRecord record(const QString &kind) const;
    // For an undo: the file had as many fields as the record says.
    bool matches(const GainRecord &record) const { return record.fields == m_index; }

private:
    StepEditor() = default;
    int m_steps = 0;      // added now
    int m_previous = 0;   // added by earlier runs
    std::map<long, int> m_originals;  // the earlier record's, then this run's
    bool m_undo = false;
    long m_index = 0;
    long m_clampedNow = 0;
};

} // namespace vx

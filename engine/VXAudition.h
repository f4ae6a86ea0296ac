#pragma once

// What the two sides of an audition play, decided from what is known of an
// item, with no file at hand. A is the original; B the result as it will
// sound: before a Gain the original through pass 2's own filter (the
// planned gain, and the limiter where the plan has one), after it the
// written file. With Match loudness A gets the plan's plain gain too, so
// the two are equally loud and only what the processing changes (a limiter,
// a lossy encoder) is heard; a louder version always sounds "better".

#include "engine/VXAudioGain.h"
#include "engine/VXJobSettings.h"
#include "engine/codec/VXLoudnessMeter.h"

#include <QString>
#include <cmath>
#include <memory>
#include <vector>

class VXFilter;

// What an item tells of itself.
struct VXAuditionFacts {
    QString input;          // the item's input file
    VXLoudness measured;    // the input's figures; unmeasured while not known
    VXJobSettings settings; // the next Gain's, targetLoudness the item's own
    // Set after a job that succeeded.
    std::optional<VXGainResult> result;
    QString output;         // where that job placed its result
    bool replaced = false;  // the result took the original's place
};

struct VXAudition {
    QString original;  // A's file; empty once the result has replaced it
    QString result;    // B's file; empty while there is nothing to plan from
    std::vector<std::shared_ptr<VXFilter>> resultFilters;  // B's
    double plainGainDb = NAN;  // the plan's gain without its limiter; NaN with no plan
    double peakDbtp = NAN;     // the original's true peak
    QString why;               // why a side is missing

    // A's filters: the plain gain with matchLoudness, else none.
    std::vector<std::shared_ptr<VXFilter>> originalFilters(bool matchLoudness) const;
    // Linear level of both sides: below 1 where A, raised to match, would
    // peak over -1 dBTP, so that it is heard as it is and not clipped.
    float level(bool matchLoudness) const;
    // The same files through the same filters: nothing to start again.
    bool soundsLike(const VXAudition &other) const;
};

VXAudition VXPlanAudition(const VXAuditionFacts &facts);

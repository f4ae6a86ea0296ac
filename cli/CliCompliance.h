#pragma once

#include "cli/CliOptions.h"
#include "engine/codec/VXError.h"
#include "engine/codec/VXLoudnessMeter.h"

#include <QJsonArray>
#include <vector>

// The compliance report of a run (--report), made of the records --json
// prints, so the two never disagree, and of the curves measured for the
// pictures, by the records' index (either may be shorter than the records).
// Each file is judged by --preset, else by the preset of its target, else by
// the target and the ceiling chosen. Says on standard error how many miss.
VXResult<> cliWriteComplianceReport(const CliOptions &opt, const QJsonArray &records,
                                    const std::vector<VXLoudness> &inputCurves,
                                    const std::vector<VXLoudness> &outputCurves);

#pragma once

// A compliance report for people who sign deliveries off: per file, the
// standard it is held to, its figures before and after a run against each
// limit, pass or fail, and its loudness picture; a summary with the failures
// first. The figures are the ones a front end already has, in the keys and
// values of the command line's --json ("input_i", "output_tp", ...), so a
// report never disagrees with the JSON of the same run. QtGui only (the
// pictures and the PDF); text on the pictures needs a QGuiApplication, the
// "offscreen" platform included.

#include "engine/VXCompliance.h"
#include "engine/codec/VXError.h"

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QString>
#include <vector>

struct VXReportFile {
    // "input", "output", "result", "reason", "target_lufs", "input_i",
    // "input_tp", "input_lra", "max_short_term", "max_momentary",
    // "output_i", "output_tp", "output_lra", "output_max_short_term",
    // "output_max_momentary", "gain_db", "normalization"; null or absent
    // where not measured.
    QJsonObject record;
    VXLimits limits;
    // Short-term loudness every kVXShortTermStep, for the picture only;
    // empty where not measured.
    std::vector<float> inputCurve;
    std::vector<float> outputCurve;
};

// How the files came out, judged as the report judges them: the result where
// one was measured, else the input as it is.
struct VXReportCounts {
    int files = 0;
    int failed = 0;
    int unmeasured = 0;
    int passed = 0;
};

enum class VXReportFormat { Unknown, Html, Pdf, Csv };

// By the file name's extension (.html or .htm, .pdf, .csv), in any case.
VXReportFormat VXReportFormatOf(const QString &path);

// Writes the report in the format its name asks for, whole or not at all,
// and tells how the files came out. Blocks while the pictures are drawn (on
// threads of its own): run it off the GUI thread.
VXResult<VXReportCounts> VXWriteReport(const QString &path, const QList<VXReportFile> &files);

// The formats on their own, for tests and benches.
QByteArray VXReportHtml(const QList<VXReportFile> &files);
QByteArray VXReportCsv(const QList<VXReportFile> &files);

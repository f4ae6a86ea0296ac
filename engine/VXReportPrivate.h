#pragma once

// What every format of the report is written from: each file's figures read
// once from its record and judged once.

#include "engine/VXReport.h"

#include <QSize>
#include <vector>

namespace vxreport {

struct Entry {
    const VXReportFile *file = nullptr;
    QString name;    // the input's file name
    QString input;   // as the record gives them
    QString output;  // empty unless a result was written
    QString result;  // "ok", "analyzed", "failed", ...
    QString reason;
    VXFigures before;     // the input's
    VXFigures after;      // the result's; unmeasured without a run
    VXJudgement judgedBefore, judgedAfter;
    // What was delivered is judged: the result where one was measured,
    // else the input as it is (analysed, skipped, tagged or failed).
    bool ran() const { return after.measured(); }
    VXVerdict verdict() const { return (ran() ? judgedAfter : judgedBefore).overall(); }
};

// In the order given.
std::vector<Entry> entries(const QList<VXReportFile> &files);
// Failures, then files not measured, then passes; the given order within each.
std::vector<const Entry *> failuresFirst(const std::vector<Entry> &entries);
VXReportCounts count(const std::vector<Entry> &entries);

// A figure as the report prints it, or "-" where there is none.
QString figure(double v, int decimals = 1);

// The entries' pictures as PNG, drawn side by side; empty where a file has
// no curve. A page's are narrower: A4 within its margins is about 680 of
// QTextDocument's pixels wide, and a picture drawn to size stays sharp.
inline constexpr QSize kPictureSize{720, 240};
inline constexpr QSize kPagePictureSize{640, 213};
std::vector<QByteArray> pictures(const std::vector<Entry> &entries, QSize size);

// The HTML of the report; a document's flavour (for QTextDocument, then
// PDF) names its pictures "picture:N", the browser's holds them inline.
enum class Flavour { Browser, Document };
QByteArray html(const std::vector<Entry> &entries, const std::vector<QByteArray> &pngs, Flavour flavour);

VXResult<> writePdf(const QString &path, const std::vector<Entry> &entries, const std::vector<QByteArray> &pngs);

} // namespace vxreport

#pragma once

// Where each file's result goes as it ends: a JSON Lines stream when asked,
// the counts, and a spool on disk from which the table or the JSON array is
// written at the end, in the order the files were found. Nothing of a result
// stays in memory but its place in the spool, so a run of 100,000 files
// needs no more memory than a run of ten.

#include "cli/CliReport.h"

#include <QFile>
#include <cstdio>
#include <functional>
#include <vector>

class CliResults {
public:
    // jsonl: each result is also written to standard output as it comes.
    explicit CliResults(bool jsonl);
    ~CliResults();

    // order: the file's place among the inputs, by which the report sorts.
    void add(const CliFileResult &r, qint64 order);
    qint64 count() const { return qint64(m_index.size()); }
    qint64 succeeded() const { return m_succeeded; }
    qint64 failed() const { return count() - m_succeeded; }

    // Every result in the inputs' order.
    void forEach(const std::function<void(const CliFileResult &)> &fn);
    // The table or the JSON array, written as it is made.
    void writeReport(FILE *out, bool json);

private:
    struct Place {
        qint64 order;
        qint64 offset;  // in the spool, or in m_memory without one
    };
    void sortIndex();
    CliFileResult read(qint64 offset);

    const bool m_jsonl;
    QFile m_spool;
    QString m_spoolPath;
    // Where no spool can be made (no usable temporary folder), the results
    // are kept here instead: the report still comes out whole.
    std::vector<CliFileResult> m_memory;
    std::vector<Place> m_index;
    qint64 m_succeeded = 0;
    bool m_sorted = true;
};

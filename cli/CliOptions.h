#pragma once

#include "engine/VXJobSettings.h"
#include "engine/VXMeasureCache.h"

#include <QString>
#include <QStringList>
#include <optional>

// What the command line asked for, once checked.
struct CliOptions {
    // What every file's job does: the 0..100 target position the items
    // take, the ceiling, the meter, albums, tags only, skipping, mtime.
    VXJobSettings settings;
    QString outputFolder;   // absolute; empty with replace
    bool replace = false;
    bool recursive = false;
    int jobs = 0;           // how many files at once
    bool json = false;
    bool jsonl = false;     // one JSON object a line, as each file ends
    bool analyze = false;   // measure and report only; nothing is written
    QString plotFolder;     // absolute; empty for no pictures
    QString reportFile;     // absolute; empty for no compliance report
    QString preset;         // the --preset named, which a report judges by
    QStringList inputs;     // files and folders, as given
    QString filesFrom;      // a list of further inputs, "-" for standard input
    bool nulSeparated = false;  // that list's entries end in NUL, not newline
    QString journal;        // absolute; empty for none
    // This process's share of the inputs: the K-th of N.
    int shardK = 1;
    int shardN = 1;
    VXMeasureCache::Location cache;  // where measurements are kept (--cache, --no-cache)
    // --watch: a hot folder whose files are taken as they arrive, until a
    // signal ends the run.
    QString watchFolder;    // absolute; empty when not watching
    qint64 settleMsecs = 5000;  // where no close events come: how long a file must be still
    QString doneFolder;     // absolute; where originals go once their result is placed
    QString failedFolder;   // absolute; where failed inputs go, with the reason beside them
};

// The outcome of parsing: options to run with, or text to print and the
// process's exit status (help and version exit 0, usage errors 2).
struct CliParse {
    std::optional<CliOptions> options;
    QString text;
    int exitCode = 0;
};

CliParse parseCommandLine(const QStringList &arguments, int defaultJobs);

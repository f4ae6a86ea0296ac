#pragma once

#include "engine/VXJobSettings.h"

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
    bool analyze = false;   // measure and report only; nothing is written
    QString plotFolder;     // absolute; empty for no pictures
    QString reportFile;     // absolute; empty for no compliance report
    QString preset;         // the --preset named, which a report judges by
    QStringList inputs;     // files and folders, as given
};

// The outcome of parsing: options to run with, or text to print and the
// process's exit status (help and version exit 0, usage errors 2).
struct CliParse {
    std::optional<CliOptions> options;
    QString text;
    int exitCode = 0;
};

CliParse parseCommandLine(const QStringList &arguments, int defaultJobs);

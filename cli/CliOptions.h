#pragma once

#include <QString>
#include <QStringList>
#include <optional>

// What the command line asked for, once checked.
struct CliOptions {
    float target = 70.77f;  // the 0..100 position the items take
    QString outputFolder;   // absolute; empty with replace
    bool replace = false;
    bool recursive = false;
    int jobs = 0;           // how many files at once
    bool json = false;
    float truePeak = -2.0f; // dBTP ceiling, -9..0
    bool limitPeaks = false;
    bool preserveMtime = false;
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

// The 0..100 position whose filter target is lufs (-70..-5), or nothing when
// lufs is out of range or the position would miss it by more than 0.01 LU.
std::optional<float> positionForLufs(double lufs);
// The filter target a position stands for, computed as the items compute it.
float lufsForPosition(float position);

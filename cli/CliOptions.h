#pragma once

#include "engine/VXLoudnessScale.h"

#include <QString>
#include <QStringList>
#include <cmath>
#include <optional>

// What the command line asked for, once checked.
struct CliOptions {
    float target = VXLoudnessScale::kDefaultPosition;  // the 0..100 position the items take
    QString outputFolder;   // absolute; empty with replace
    bool replace = false;
    bool recursive = false;
    int jobs = 0;           // how many files at once
    bool json = false;
    float truePeak = -2.0f; // dBTP ceiling, -9..0
    bool limitPeaks = false;
    bool preserveMtime = false;
    bool analyze = false;   // measure and report only; nothing is written
    bool measureWithLoudnorm = false;  // pass 1 with FFmpeg's loudnorm, not the reference meter
    bool dualMono = false;  // mono measured as played on two speakers
    bool album = false;     // one gain per album (album tag, else folder)
    bool tagsOnly = false;  // write ReplayGain tags, leave the audio alone
    double skipWithin = NAN; // LU; files this close to the target are left alone
    QString plotFolder;     // absolute; empty for no pictures
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

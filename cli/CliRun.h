#pragma once

// One run of the tool, from the files found to the report, in the steps
// main() takes one after another.

#include "cli/CliBatch.h"
#include "cli/CliOptions.h"
#include "cli/CliReport.h"
#include "engine/VXLoudnessScale.h"
#include "engine/codec/VXCancel.h"
#include "engine/codec/VXLoudnessMeter.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <cstdio>
#include <memory>
#include <vector>

class CliSignals;
class QCoreApplication;
class VXAlbumBatch;

void cliWriteOut(FILE *stream, const QByteArray &text);
// One line on standard error.
void cliSay(const QString &line);

// What a run carries from one step to the next.
struct CliRun {
    CliRun(QCoreApplication &app, CliSignals &watcher, const CliOptions &opt)
        : app(app), watcher(watcher), opt(opt), targetLufs(VXLoudnessScale::lufsForPosition(opt.settings.targetLoudness))
    {
    }
    QCoreApplication &app;
    CliSignals &watcher;
    const CliOptions &opt;
    const float targetLufs;
    QList<CliFileResult> results;  // in the order found, as reported
    QList<CliBatch::Job> jobs;     // the items, for every mode but --analyze
    std::shared_ptr<VXAlbumBatch> albums;  // with --album
    // Pictures are drawn from the inputs as they are before any job runs
    // (with --replace nothing else is left of them afterwards).
    std::vector<VXLoudness> inputCurves;
    // The results' curves, measured after the jobs for the pictures.
    std::vector<VXLoudness> outputCurves;
    // Written on pool threads, each in its own slot.
    std::vector<QString> pictureWarnings;
    // Stops the measuring around the batch (album analysis, analysis,
    // pictures).
    VXCancel measuring;
    bool cancelled = false;  // the batch was

    CliFileResult result(const QString &input, CliOutcome outcome) const
    {
        CliFileResult r;
        r.input = input;
        r.outcome = outcome;
        r.targetLufs = targetLufs;
        return r;
    }
    bool plot() const { return !opt.plotFolder.isEmpty(); }
    // Pictures to draw, in files or in the report: the curves are measured.
    bool curves() const { return plot() || !opt.reportFile.isEmpty(); }
    // On a pool thread: reads the results, writes only its own slot of
    // pictureWarnings.
    void drawPicture(int i, const VXLoudness &output);
};

// The inputs named that are missing, then every file found, each probed
// and set up for its job (or only listed, for --analyze).
void cliCollectFiles(CliRun &run);
// What comes before the jobs, or instead of them: the albums of an
// analysis, the analysis, the input curves. An interrupt cancels it.
void cliMeasureBeforeJobs(CliRun &run);
// The items' jobs (gains or tags) on the batch runner, with progress on
// standard error; album figures read back from the batch after.
void cliRunJobs(CliRun &run);
// After a run, each result's curve measured, and drawn over its input's.
void cliDrawResults(CliRun &run);
// The summary line, the table or JSON, the compliance report; the exit status.
int cliReport(CliRun &run);

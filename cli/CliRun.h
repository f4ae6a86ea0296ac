#pragma once

// One run of the tool, from the files found to the report, in the steps
// main() takes one after another.

#include "cli/CliOptions.h"
#include "cli/CliReport.h"
#include "cli/CliResults.h"
#include "engine/VXLoudnessScale.h"
#include "engine/codec/VXCancel.h"
#include "engine/codec/VXLoudnessMeter.h"

#include <QByteArray>
#include <QHash>
#include <QString>
#include <cstdio>
#include <memory>
#include <vector>

class CliSignals;
class QCoreApplication;
class VXAlbumBatch;
class VXJournal;

void cliWriteOut(FILE *stream, const QByteArray &text);
// One line on standard error.
void cliSay(const QString &line);

// What a run carries from one step to the next.
struct CliRun {
    CliRun(QCoreApplication &app, CliSignals &watcher, const CliOptions &opt)
        : app(app), watcher(watcher), opt(opt), targetLufs(VXLoudnessScale::lufsForPosition(opt.settings.targetLoudness)),
          results(opt.jsonl)
    {
    }
    QCoreApplication &app;
    CliSignals &watcher;
    const CliOptions &opt;
    const float targetLufs;
    CliResults results;
    std::vector<QString> files;  // to process, in the order found
    qint64 firstOrder = 0;       // the files' places in the report follow the missing inputs'
    std::shared_ptr<VXAlbumBatch> albums;  // with --album
    std::shared_ptr<VXJournal> journal;    // with --journal
    // Stops measuring (albums, analysis, pictures).
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
    // On a pool thread: the picture of input over output into the picture
    // folder; why it could not be written, or empty.
    QString drawPicture(const QString &input, const VXLoudness &inputCurve, const VXLoudness &output) const;
    // Pictures to draw, in files or in the report: the curves are measured.
    bool curves() const { return plot() || !opt.reportFile.isEmpty(); }
    // With --report, each file's curves until the report is made, by input.
    struct Curves {
        std::vector<float> input;
        std::vector<float> output;
    };
    QHash<QString, Curves> reportCurves;
    void keepCurves(const QString &input, const VXLoudness &in, const VXLoudness &out)
    {
        if (!opt.reportFile.isEmpty())
            reportCurves.insert(input, {in.shortTerm, out.shortTerm});
    }
};

// The run's journal at path, for its settings; false once it has said why
// it cannot be used (exit status in *status).
bool cliOpenJournal(CliRun &run, const QString &path, int *status);
// The journal, the inputs named and listed, and the files found in them.
// False once it has said why the run cannot go on (exit status in *status).
bool cliCollectFiles(CliRun &run, int *status);
// What comes before the files: each album measured once (--analyze
// --album). An interrupt cancels it.
void cliMeasureBeforeJobs(CliRun &run);
// Every file through its steps, with progress on standard error.
void cliRunJobs(CliRun &run);
// The summary line, the table or JSON, the compliance report; the exit status.
int cliReport(CliRun &run);

#pragma once

#include <QElapsedTimer>
#include <QObject>

#include <optional>
#include <functional>
#include <unordered_map>
#include <vector>

#include "cli/CliReport.h"
#include "engine/VXAudioGain.h"

class CliProgress;
struct CliRun;

// Runs a run's files, at most --jobs at a time, each through its own
// steps, starting the next when one ends: measured only (--analyze), or an
// item made from the probed file whose job runs (gains or tags), with the
// pictures of --plot before and after. Each result goes to the run's results
// as it ends, and the item goes with it, so what is held in memory is the
// files under way, never the batch. Lives on the main thread, where the
// items report.
class CliBatch : public QObject {
    Q_OBJECT
public:
    CliBatch(CliRun &run, CliProgress &progress, QObject *parent = nullptr);

    void start();
    // Starts nothing more and cancels what runs; finished() follows once
    // all has ended. Files never started count as cancelled.
    void cancel();
    bool isCancelled() const { return m_cancelling; }

    // An open batch takes files while it runs (a watched folder's) and does
    // not finish when it has none left, only once cancelled or closed.
    void setOpen(bool open) { m_open = open; }
    // A file to run after those given so far.
    void add(const QString &path);
    // No more files: finished() follows once those under way have ended.
    void close();
    // Called with each file's result just before it is reported; it may add
    // to it (a warning).
    void setResultHook(std::function<void(CliFileResult &)> hook) { m_resultHook = std::move(hook); }

    // Up to this many files, all are probed before the first starts, so the
    // longest can go first: a long file started last would leave the other
    // cores idle while it finishes alone. Beyond it, files go in the order
    // found, probed as they start.
    static constexpr qsizetype kSortedBatch = 256;

signals:
    void finished();

private:
    struct Slot {
        VXAudioGainPtr item;
        VXLoudness inputCurve;  // --plot: the input as it was
        QElapsedTimer clock;
        bool started = false;
        bool jobRan = false;  // the item's job ran (and kept its own journal)
    };
    void prepareSorted();
    void startNext();
    void launch(qsizetype file);
    // On a pool thread: the file's result when it can be had without an
    // item, its probe or a decode.
    std::optional<CliFileResult> precheck(const QString &path) const;
    void analyze(qsizetype file);
    void runJob(qsizetype file);
    void onReport(qsizetype file, qint32 state, qint64 retCode);
    void finishJob(qsizetype file, CliFileResult r);
    // The file's item, probed now if it was not; false when it was
    // refused, and then the refusal has been reported.
    bool makeItem(qsizetype file);
    // audioSeconds: how much audio the file held, where no item says.
    void end(qsizetype file, const CliFileResult &r, double audioSeconds = 0);
    // The result into the run's results, through the hook.
    void record(CliFileResult &r, qsizetype file);
    void store(const CliFileResult &r, qsizetype file);
    void finishIfDone();
    // An ended job's outcome, figures and output, into its result.
    static void readGainResult(const VXAudioGain &item, VXGainEnd end, CliFileResult &r);
    static void readTagsResult(const VXAudioGain &item, VXGainEnd end, CliFileResult &r);
    static QString outputOf(const VXAudioGain &item);

    CliRun &m_run;
    CliProgress &m_progress;
    const int m_maxRunning;
    std::vector<qsizetype> m_order;  // files in the order they start
    std::unordered_map<qsizetype, Slot> m_slots;  // the files under way (and probed ahead), by file
    qsizetype m_next = 0;
    int m_running = 0;
    bool m_cancelling = false;
    bool m_finished = false;
    bool m_open = false;
    std::function<void(CliFileResult &)> m_resultHook;
};

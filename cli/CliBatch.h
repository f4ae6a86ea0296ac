#pragma once

#include <QElapsedTimer>
#include <QList>
#include <QObject>

#include "cli/CliReport.h"
#include "engine/VXAudioGain.h"

class CliProgress;

// Runs the items' own jobs (gains or tags), at most maxRunning at a time, starting the next
// when one ends, and fills in each one's result. Lives on the main thread,
// where the items report.
class CliBatch : public QObject {
    Q_OBJECT
public:
    struct Job {
        VXAudioGainPtr item;
        int result = -1; // index into the results list
    };
    CliBatch(QList<Job> jobs, QList<CliFileResult> &results, int maxRunning, CliProgress &progress,
             QObject *parent = nullptr);

    void start();
    // Starts nothing more and cancels the running jobs; finished() follows
    // once they have all ended. Files never started count as cancelled.
    void cancel();
    bool isCancelled() const { return m_cancelling; }

signals:
    void finished();

private:
    void startNext();
    void launch(int index);
    void onReport(int index, qint32 state, qint64 retCode);
    // An ended job's outcome, figures and output, into its result.
    static void readGainResult(const VXAudioGain &item, VXGainEnd end, CliFileResult &r);
    static void readTagsResult(const VXAudioGain &item, VXGainEnd end, CliFileResult &r);
    static QString outputOf(const VXAudioGain &item);
    void finishIfDone();

    QList<Job> m_jobs;
    QList<QElapsedTimer> m_clocks;
    QList<CliFileResult> &m_results;
    const int m_maxRunning;
    CliProgress &m_progress;
    int m_next = 0;
    int m_running = 0;
    bool m_cancelling = false;
    bool m_finished = false;
};

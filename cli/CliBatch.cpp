#include "cli/CliBatch.h"

#include "cli/CliProgress.h"

#include <algorithm>
#include "engine/codec/VXFilter.h"

CliBatch::CliBatch(QList<Job> jobs, QList<CliFileResult> &results, int maxRunning,
                   CliProgress &progress, QObject *parent)
    : QObject(parent), m_jobs(std::move(jobs)), m_clocks(m_jobs.size()), m_results(results),
      m_maxRunning(std::max(1, maxRunning)), m_progress(progress)
{
    // Longest first: a long file started last would leave the other cores
    // idle while it finishes alone. The report keeps the order given.
    std::stable_sort(m_jobs.begin(), m_jobs.end(),
                     [](const Job &a, const Job &b) { return a.item->duration() > b.item->duration(); });
}

void CliBatch::start()
{
    startNext();
    finishIfDone();
}

void CliBatch::cancel()
{
    if (m_cancelling)
        return;
    m_cancelling = true;
    for (qsizetype i = m_next; i < m_jobs.size(); ++i)
        m_results[m_jobs[i].result].outcome = CliOutcome::Cancelled;
    for (qsizetype i = 0; i < m_next; ++i) {
        if (m_jobs[i].item->isRunning())
            m_jobs[i].item->cancelGain();
    }
    finishIfDone();
}

void CliBatch::startNext()
{
    while (!m_cancelling && m_running < m_maxRunning && m_next < m_jobs.size())
        launch(m_next++);
}

void CliBatch::launch(int index)
{
    const VXAudioGainPtr &item = m_jobs[index].item;
    ++m_running;
    m_clocks[index].start();
    // Tags take no time to speak of once measured: no bars, one line at the end.
    if (!item->jobSettings().tagsOnly)
        m_progress.fileStarted(index, item->inputFile(), item->duration());
    // The item reports its start before gainWithBlock returns, so everything
    // the report touches is set up first.
    item->gainWithBlock([this, index](qint32 state, qint64 retCode) { onReport(index, state, retCode); });
}

void CliBatch::onReport(int index, qint32 state, qint64 retCode)
{
    if (state == VXGainRunning) {
        m_progress.fileProgress(index, int(retCode));
        return;
    }
    if (state != VXGainFinished)
        return;

    const VXAudioGainPtr &item = m_jobs[index].item;
    CliFileResult &r = m_results[m_jobs[index].result];
    if (item->jobSettings().tagsOnly) {
        readTagsResult(*item, VXGainEnd(retCode), r);
        // A cancelled file has no line of its own: the summary counts it.
        if (r.outcome != CliOutcome::Cancelled)
            m_progress.message(QStringLiteral("%1  %2%3").arg(outcomeName(r.outcome), -9).arg(r.input,
                                               r.reason.isEmpty() ? QString() : QStringLiteral(": ") + r.reason));
    } else {
        r.seconds = m_clocks[index].nsecsElapsed() / 1e9;
        readGainResult(*item, VXGainEnd(retCode), r);
        QString line = QStringLiteral("%1  %2").arg(outcomeName(r.outcome), -9).arg(r.input);
        if (!r.output.isEmpty() && r.output != r.input)
            line += QStringLiteral(" -> ") + r.output;
        if (!r.reason.isEmpty())
            line += QStringLiteral(": ") + r.reason;
        line += QStringLiteral(" (%1 s)").arg(r.seconds, 0, 'f', 1);
        m_progress.fileEnded(index, line);
    }

    --m_running;
    // Not from inside this report: a job may end before gainWithBlock returns.
    QMetaObject::invokeMethod(this, [this] {
        startNext();
        finishIfDone();
    }, Qt::QueuedConnection);
}

QString CliBatch::outputOf(const VXAudioGain &item)
{
    return item.replaceOriginalFile() ? item.inputFile() : item.outPathFile();
}

void CliBatch::readGainResult(const VXAudioGain &item, VXGainEnd end, CliFileResult &r)
{
    r.measurement = item.measurement();
    const VXGainResult gain = item.gainResult();
    r.gainDb = gain.gainDb;
    r.outputI = gain.outputI;
    r.outputTp = gain.outputTp;
    r.outputLra = gain.outputLra;
    r.normalization = gain.normalization;
    r.corrections = gain.corrections;
    r.warning = gain.warning;
    r.otherStreams = gain.otherStreams;
    switch (end) {
    case VXGainSucceeded:
        if (gain.skipped) {
            r.outcome = CliOutcome::Skipped;
            break;
        }
        r.outcome = gain.normalization == VXNormalizationName(VXNormalization::OnePass) ? CliOutcome::OnePass
                                                                                         : CliOutcome::Ok;
        r.output = outputOf(item);
        break;
    case VXGainCancelled:
        r.outcome = CliOutcome::Cancelled;
        break;
    default:
        r.outcome = CliOutcome::Failed;
        r.reason = gain.reason.isEmpty() ? QStringLiteral("failed") : gain.reason;
        break;
    }
}

// A tags-only job: what it measured and wrote. Its gain is the track's tag,
// reported as such rather than as a gain applied; a cancelled file is left
// as it was, unmeasured.
void CliBatch::readTagsResult(const VXAudioGain &item, VXGainEnd end, CliFileResult &r)
{
    const VXGainResult gain = item.gainResult();
    switch (end) {
    case VXGainCancelled:
        r.outcome = CliOutcome::Cancelled;
        return;
    case VXGainSucceeded:
        if (gain.skipped) {  // tagged before by the same meter: left as it is
            r.outcome = CliOutcome::Skipped;
            break;
        }
        r.outcome = CliOutcome::Tagged;
        r.output = outputOf(item);
        r.warning = gain.warning;
        r.tagTrackGain = gain.tags.trackGainDb;
        r.tagTrackPeak = gain.tags.trackPeak;
        r.tagAlbumGain = gain.tags.albumGainDb;
        r.tagAlbumPeak = gain.tags.albumPeak;
        break;
    default:
        r.outcome = CliOutcome::Failed;
        r.reason = gain.reason.isEmpty() ? QStringLiteral("failed") : gain.reason;
        break;
    }
    r.measurement = item.measurement();
}

void CliBatch::finishIfDone()
{
    if (m_finished || m_running > 0 || (!m_cancelling && m_next < m_jobs.size()))
        return;
    m_finished = true;
    emit finished();
}

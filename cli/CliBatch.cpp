#include "cli/CliBatch.h"

#include "cli/CliAlbums.h"
#include "cli/CliProgress.h"
#include "cli/CliRun.h"
#include "engine/VXAnalysis.h"
#include "engine/VXGainText.h"
#include "engine/VXJournal.h"
#include "engine/VXProvenance.h"
#include "engine/VXMainThread.h"
#include "engine/codec/VXCodecConstants.h"
#include "engine/codec/VXFilter.h"

#include <QFileInfo>
#include <algorithm>
#include <numeric>

namespace {

QString refusalReason(const VXError &error)
{
    if (error.userInfo.contains(QLatin1String(VXTranscodingDRMProtected)))
        return QStringLiteral("DRM protected stream detected, can not import such file.");
    if (!error.description.isEmpty())
        return error.description;
    return QStringLiteral("Failed to parser file with unknown reason.");
}

QString endLine(const CliFileResult &r)
{
    QString line = QStringLiteral("%1  %2").arg(outcomeName(r.outcome), -9).arg(r.input);
    if (!r.output.isEmpty() && r.output != r.input)
        line += QStringLiteral(" -> ") + r.output;
    if (!r.reason.isEmpty())
        line += QStringLiteral(": ") + r.reason;
    return line;
}

} // namespace

CliBatch::CliBatch(CliRun &run, CliProgress &progress, QObject *parent)
    : QObject(parent), m_run(run), m_progress(progress), m_maxRunning(std::max(1, run.opt.jobs))
{
    m_order.resize(run.files.size());
    std::iota(m_order.begin(), m_order.end(), qsizetype(0));
}

void CliBatch::start()
{
    // An open batch keeps the order of arrival.
    if (!m_open && !m_run.opt.analyze && qsizetype(m_order.size()) <= kSortedBatch)
        prepareSorted();
    startNext();
    finishIfDone();
}

void CliBatch::prepareSorted()
{
    std::vector<qsizetype> probed;
    for (const qsizetype file : m_order)
        if (!m_cancelling && makeItem(file))
            probed.push_back(file);
    std::stable_sort(probed.begin(), probed.end(), [this](qsizetype a, qsizetype b) {
        return m_slots[a].item->duration() > m_slots[b].item->duration();
    });
    m_order = std::move(probed);
}

void CliBatch::cancel()
{
    if (m_cancelling)
        return;
    m_cancelling = true;
    m_run.measuring.cancel();
    for (auto &[file, slot] : m_slots)
        if (slot.started && slot.item && slot.item->isRunning())
            slot.item->cancelGain();
    finishIfDone();
}

void CliBatch::add(const QString &path)
{
    if (m_cancelling || m_finished)
        return;
    m_order.push_back(qsizetype(m_run.files.size()));
    m_run.files.push_back(path);
    startNext();
}

void CliBatch::close()
{
    m_open = false;
    finishIfDone();
}

void CliBatch::startNext()
{
    while (!m_cancelling && m_running < m_maxRunning && m_next < qsizetype(m_order.size()))
        launch(m_order[size_t(m_next++)]);
    // A batch open for hours keeps no list of what it has started.
    if (m_open && m_next == qsizetype(m_order.size())) {
        m_order.clear();
        m_next = 0;
    }
}

void CliBatch::launch(qsizetype file)
{
    ++m_running;
    Slot &slot = m_slots[file];
    slot.started = true;
    slot.clock.start();
    if (m_run.opt.analyze) {
        analyze(file);
        return;
    }
    // What needs no item is done on the pool first: whether the file can be
    // left as it is without a decode, and with --plot or --report the
    // input's curve (with --replace nothing else is left of the input afterwards).
    const QString path = m_run.files[size_t(file)];
    const bool curves = m_run.curves();
    const int flags = VXMeasureCurve | (m_run.opt.settings.dualMono ? VXMeasureDualMono : 0);
    VXStartOnPool(VXAudioGain::jobPool(), [this, file, path, curves, flags] {
        std::optional<CliFileResult> done = precheck(path);
        VXLoudness curve;
        if (!done && curves)
            curve = VXMeasureFile(path, flags, &m_run.measuring).valueOr({});
        VXPostTo(this, [this, file, done = std::move(done), curve = std::move(curve)]() mutable {
            if (done) {
                end(file, *done);
                return;
            }
            if (m_cancelling) {
                end(file, m_run.result(m_run.files[size_t(file)], CliOutcome::Cancelled));
                return;
            }
            m_slots[file].inputCurve = std::move(curve);
            runJob(file);
        });
    });
}

std::optional<CliFileResult> CliBatch::precheck(const QString &path) const
{
    // Made by us with these settings, as its tag says: not even probed.
    const std::optional<VXProvenance> made = VXProvenanceSkip(path, m_run.opt.settings);
    if (!made)
        return std::nullopt;
    CliFileResult r = m_run.result(path, CliOutcome::Skipped);
    r.measurement = made->measurementRecord();
    r.gainDb = 0.0;
    return r;
}

void CliBatch::analyze(qsizetype file)
{
    const QString path = m_run.files[size_t(file)];
    m_progress.fileStarted(int(file), path, 0);
    VXStartOnPool(VXAudioGain::jobPool(), [this, file, path] {
        const VXJobSettings &settings = m_run.opt.settings;
        VXAnalysis a = VXAnalyzeFile(path, m_run.targetLufs, settings.truePeakCeiling, settings.limitPeaks,
                                     settings.dualMono, &m_run.measuring);
        const QString pictureWarning = a.ok && m_run.plot() ? m_run.drawPicture(path, a.loudness, {}) : QString();
        // The curve has a point every 100 ms: the audio's length, for the pace.
        const double seconds = double(a.loudness.shortTerm.size()) * kVXShortTermStep;
        VXPostTo(this, [this, file, a = std::move(a), pictureWarning, seconds] {
            m_run.keepCurves(m_run.files[size_t(file)], a.loudness, {});
            CliFileResult r = m_run.result(m_run.files[size_t(file)], CliOutcome::Analyzed);
            r.warning = pictureWarning;
            if (!a.ok) {
                r.outcome = m_run.measuring.isCancelled() ? CliOutcome::Cancelled : CliOutcome::Failed;
                r.reason = r.outcome == CliOutcome::Failed ? a.reason : QString();
            } else {
                r.measurement = VXMeasurementRecord(a.loudness);
                r.measurement.remove(QStringLiteral("target_offset"));  // nothing was normalised
                r.gainDb = a.gainDb;
                r.normalization = a.normalization;
                r.maxShortTerm = a.loudness.maxShortTerm;
                r.maxMomentary = a.loudness.maxMomentary;
            }
            end(file, r, seconds);
        });
    });
}

bool CliBatch::makeItem(qsizetype file)
{
    Slot &slot = m_slots[file];
    if (slot.item)
        return true;
    const CliOptions &opt = m_run.opt;
    const QString &path = m_run.files[size_t(file)];
    // Tags (and an undo) go into copies with an output folder, else into the files.
    const bool inPlace
        = opt.replace || ((opt.settings.tagsOnly || opt.settings.undoLossless) && opt.outputFolder.isEmpty());
    VXError error;
    slot.item = VXAudioGain::initWithFile(path, inPlace ? QString() : opt.outputFolder, &error);
    if (!slot.item) {
        CliFileResult r = m_run.result(path, CliOutcome::Refused);
        r.reason = refusalReason(error);
        cliSay(QStringLiteral("Can not import audio file(%1): %2").arg(path, r.reason));
        m_slots.erase(file);
        record(r, file);
        return false;
    }
    VXAudioGain &item = *slot.item;
    item.setTargetLoudness(opt.settings.targetLoudness);
    item.setReplaceOriginalFile(inPlace);
    item.setJobSettings(opt.settings);
    item.setAlbumBatch(m_run.albums);
    item.setJournal(m_run.journal);
    return true;
}

void CliBatch::runJob(qsizetype file)
{
    if (!makeItem(file)) {
        --m_running;
        QMetaObject::invokeMethod(this, [this] { startNext(); finishIfDone(); }, Qt::QueuedConnection);
        return;
    }
    const VXAudioGainPtr item = m_slots[file].item;
    m_slots[file].jobRan = true;
    // Tags take no time to speak of once measured: one line at the end.
    if (!item->jobSettings().tagsOnly || item->jobSettings().lossless)
        m_progress.fileStarted(int(file), item->inputFile(), item->duration());
    // The item reports its start before gainWithBlock returns, so everything
    // the report touches is set up first.
    item->gainWithBlock([this, file](qint32 state, qint64 retCode) { onReport(file, state, retCode); });
}

void CliBatch::onReport(qsizetype file, qint32 state, qint64 retCode)
{
    if (state == VXGainRunning) {
        m_progress.fileProgress(int(file), int(retCode));
        return;
    }
    if (state != VXGainFinished)
        return;
    Slot &slot = m_slots[file];
    const VXAudioGain &item = *slot.item;
    CliFileResult r = m_run.result(item.inputFile(), CliOutcome::Failed);
    const VXJobSettings settings = item.jobSettings();
    if (settings.tagsOnly && !settings.lossless)
        readTagsResult(item, VXGainEnd(retCode), r);
    else
        readGainResult(item, VXGainEnd(retCode), r);
    // Not from inside this report: a job may end before gainWithBlock returns.
    QMetaObject::invokeMethod(this, [this, file, r] { finishJob(file, r); }, Qt::QueuedConnection);
}

// The picture of a result goes with it: the output decoded by the meter,
// drawn over the input's curve.
void CliBatch::finishJob(qsizetype file, CliFileResult r)
{
    Slot &slot = m_slots[file];
    if (!slot.inputCurve.shortTerm.empty()) {
        r.maxShortTerm = slot.inputCurve.maxShortTerm;
        r.maxMomentary = slot.inputCurve.maxMomentary;
    }
    if (!m_run.curves() || !outcomeSucceeded(r.outcome) || slot.inputCurve.shortTerm.empty() || m_cancelling) {
        m_run.keepCurves(r.input, slot.inputCurve, {});
        end(file, r);
        return;
    }
    const int flags = VXMeasureCurve | (m_run.opt.settings.dualMono ? VXMeasureDualMono : 0);
    VXStartOnPool(VXAudioGain::jobPool(), [this, file, r, flags, input = slot.inputCurve]() mutable {
        const VXLoudness output
            = r.output.isEmpty() ? VXLoudness() : VXMeasureFile(r.output, flags, &m_run.measuring).valueOr({});
        r.outputMaxShortTerm = output.maxShortTerm;
        r.outputMaxMomentary = output.maxMomentary;
        if (m_run.plot() && !m_run.measuring.isCancelled()) {
            const QString warning = m_run.drawPicture(r.input, input, output);
            if (!warning.isEmpty())
                r.warning = warning;
        }
        VXPostTo(this, [this, file, r, input = std::move(input), output] {
            m_run.keepCurves(r.input, input, output);
            end(file, r);
        });
    });
}

void CliBatch::end(qsizetype file, const CliFileResult &result, double audioSeconds)
{
    CliFileResult r = result;
    auto it = m_slots.find(file);
    if (it != m_slots.end()) {
        r.seconds = it->second.clock.nsecsElapsed() / 1e9;
        if (it->second.item)
            audioSeconds = double(it->second.item->duration()) / double(VXTimebase);
    }
    if (m_run.albums)
        cliReportAlbum(r, *m_run.albums, m_run.opt.settings);
    if (m_run.opt.analyze && r.outcome == CliOutcome::Analyzed && !std::isnan(r.albumGainDb)) {
        // An album's tracks would all take its gain.
        r.gainDb = r.albumGainDb;
        r.normalization = r.albumNormalization;
    }
    // A job records its own end; what ended without one (measured only, or
    // skipped on its record) is recorded here.
    const bool jobless = it == m_slots.end() || !it->second.jobRan;
    if (m_run.journal && jobless && (r.outcome == CliOutcome::Analyzed || r.outcome == CliOutcome::Skipped))
        m_run.journal->done(r.input, VXFileId::of(r.input), QString(), outcomeName(r.outcome));
    if (m_resultHook)
        m_resultHook(r);
    const bool tags = m_run.opt.settings.tagsOnly && !m_run.opt.settings.lossless;
    const QString line = endLine(r) + (tags || m_run.opt.analyze ? QString() : QStringLiteral(" (%1 s)").arg(r.seconds, 0, 'f', 1));
    // A cancelled file has no line of its own: the summary counts it.
    if (r.outcome != CliOutcome::Cancelled || !(tags || m_run.opt.analyze))
        m_progress.fileEnded(int(file), line, audioSeconds);
    store(r, file);
    if (it != m_slots.end())
        m_slots.erase(it);
    --m_running;
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
    r.lossless = gain.lossless;
    r.notes = VXLosslessNotes(gain);
    if (gain.tagged) {
        // --lossless --tags-only: the rest of the way is in the tags.
        r.tagTrackGain = gain.tags.trackGainDb;
        r.tagTrackPeak = gain.tags.trackPeak;
        r.tagAlbumGain = gain.tags.albumGainDb;
        r.tagAlbumPeak = gain.tags.albumPeak;
    }
    switch (end) {
    case VXGainSucceeded:
        if (gain.skipped) {
            r.outcome = CliOutcome::Skipped;
            break;
        }
        // Tags only where no gain field could take the gain: the audio is as it was.
        r.outcome = gain.lossless.restored                                            ? CliOutcome::Restored
            : gain.tagged && gain.normalization.isEmpty()                             ? CliOutcome::Tagged
            : gain.normalization == VXNormalizationName(VXNormalization::OnePass) ? CliOutcome::OnePass
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

void CliBatch::record(CliFileResult &r, qsizetype file)
{
    if (m_resultHook)
        m_resultHook(r);
    store(r, file);
}

void CliBatch::store(const CliFileResult &r, qsizetype file)
{
    m_run.results.add(r, m_run.firstOrder + file);
    // An open batch keeps no path of a file that has ended.
    if (m_open)
        m_run.files[size_t(file)] = QString();
}

void CliBatch::finishIfDone()
{
    if (m_finished || m_running > 0 || (!m_cancelling && (m_open || m_next < qsizetype(m_order.size()))))
        return;
    m_finished = true;
    // What never started, in the order it would have.
    for (qsizetype k = m_next; k < qsizetype(m_order.size()); ++k) {
        const qsizetype file = m_order[size_t(k)];
        CliFileResult r = m_run.result(m_run.files[size_t(file)], CliOutcome::Cancelled);
        record(r, file);
    }
    m_slots.clear();
    emit finished();
}

#include "app/AppDelegate.h"

#include "app/RQAudioGainRows.h"
#include "app/RQSettingsController.h"
#include "engine/VXGainState.h"
#include "engine/VXMeasureCache.h"

#include "ui_MainWindow.h"

#include <QtConcurrent>

namespace {
struct Measurement {
    bool ok = false;
    VXLoudness loudness;
};
} // namespace

RQAudioGainRows *AppDelegate::rows() const
{
    // The window's model is made in the constructor and never replaced.
    return static_cast<RQAudioGainRows *>(m_audioGains);
}

void AppDelegate::analyzeSelected()
{
    for (const VXAudioGainPtr &item : selectedAudioGains()) {
        if (!item->isRunning())
            analyze(item, item->inputFile(), false);
    }
}

void AppDelegate::analyze(const VXAudioGainPtr &item, const QString &path, bool output)
{
    // Queued here and started as the pool frees up: ten thousand futures
    // made in one go would hold the window for a moment, and their files'
    // figures would arrive in no useful order.
    ++m_runningAnalyses;
    m_analysisQueue.push_back({item, path, output});
    startAnalyses();
}

void AppDelegate::startAnalyses()
{
    // Two per thread, so that the pool never waits for this thread's turn.
    const int inFlight = 2 * m_analysisPool.maxThreadCount();
    while (m_analysesStarted < inFlight && !m_analysisQueue.empty()) {
        const PendingAnalysis next = std::move(m_analysisQueue.front());
        m_analysisQueue.pop_front();
        if (next.item.expired()) {
            analysisEnded();
            continue;
        }
        ++m_analysesStarted;
        startAnalysis(next.item, next.path, next.output);
    }
}

void AppDelegate::analysisEnded()
{
    if (--m_runningAnalyses == 0)
        emit analysesFinished();
}

void AppDelegate::startAnalysis(const std::weak_ptr<VXAudioGain> &weak, const QString &path, bool output)
{
    const std::shared_ptr<const VXCancel> cancel = m_analysisCancel;
    const int flags = VXMeasureTruePeak | VXMeasureCurve
        | (m_settings->settings().dualMono ? VXMeasureDualMono : 0);
    QtConcurrent::run(&m_analysisPool,
                      [path, cancel, flags] {
                          Measurement m;
                          VXResult<VXMeasured> measured = VXMeasureWithCache(path, flags, cancel.get());
                          m.ok = measured.ok();
                          if (m.ok)
                              m.loudness = std::move(measured->loudness);
                          return m;
                      })
        .then(this, [this, weak, output](const Measurement &m) {
            --m_analysesStarted;
            // The row may have been removed meanwhile; setMeasured ignores it then.
            if (const VXAudioGainPtr item = weak.lock(); item && m.ok) {
                rows()->setMeasured(item.get(), m.loudness, output);
                // The picture at once; the row's repaint can wait for the turn's end.
                if (shownRow() >= 0 && shownRow() == rows()->indexOf(item.get()))
                    updateLoudnessView();
            }
            startAnalyses();
            analysisEnded();
        });
}

void AppDelegate::analyzeResult(const VXAudioGainPtr &item)
{
    // A result is measured only where its input was: that is the picture
    // the user asked for.
    if (item->retCode() != VXGainSucceeded || item->gainResult().skipped || !rows()->measured(item.get()))
        return;
    analyze(item, item->outPathFile(), true);
}

void AppDelegate::updateLoudnessView()
{
    VXLoudnessPictureData data;
    if (const VXAudioGainPtr item = m_audioGains->at(shownRow())) {
        data.title = item->inputFileName();
        data.targetLufs = item->loudnormValue();
        data.ceilingDbtp = m_settings->settings().truePeakCeiling;
        if (const RQAudioGainRows::Measured *m = rows()->measured(item.get())) {
            data.input = m->input;
            data.output = m->output;
        }
    }
    m_ui->loudnessView->setPicture(data);
}

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
    ++m_runningAnalyses;
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
        .then(this, [this, weak = std::weak_ptr<VXAudioGain>(item), output](const Measurement &m) {
            // The row may have been removed meanwhile; setMeasured ignores it then.
            if (const VXAudioGainPtr item = weak.lock(); item && m.ok)
                rows()->setMeasured(item.get(), m.loudness, output);
            if (--m_runningAnalyses == 0)
                emit analysesFinished();
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
    // The row with the keyboard focus when it is selected, else the first selected.
    const QList<int> selected = selectedRows();
    const int current = tableView()->currentIndex().row();
    const int row = selected.contains(current) ? current : selected.value(0, -1);
    VXLoudnessPictureData data;
    if (const VXAudioGainPtr item = m_audioGains->at(row)) {
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

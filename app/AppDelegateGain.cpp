#include "app/AppDelegate.h"

#include "app/RQDesktopServices.h"
#include "app/RQPalette.h"
#include "engine/VXAlbumBatch.h"
#include "engine/VXGainState.h"
#include "engine/codec/VXLog.h"
#include "views/RQPopupMenuWndCtrl.h"

#include "ui_MainWindow.h"

#include <QPushButton>

namespace {
bool isEligible(const VXAudioGain &item)
{
    return item.state() == VXGainIdle || (item.state() == VXGainFinished && item.retCode() == VXGainCancelled);
}
} // namespace

void AppDelegate::gainAudioAction()
{
    if (btnGain()->property("tag").toInt() == 0) {
        // Tags go into the files themselves unless a folder is there.
        if (!finalOutFolder().isNull() || m_replaceOriginalFile || m_ui->actionTagsOnly->isChecked())
            gainAudios();
        else
            selectOutputFolder(true);
        return;
    }
    cancelSelectedJobs();
}

void AppDelegate::cancelSelectedJobs()
{
    // Only the chosen items that run; the face follows their end reports.
    for (const VXAudioGainPtr &item : selectedAudioGains()) {
        if (item->isRunning())
            item->cancelGain();
    }
}

void AppDelegate::gainAudios()
{
    const QString folder = finalOutFolder();
    const bool tagsOnly = m_ui->actionTagsOnly->isChecked();
    if (!m_replaceOriginalFile && folder.isNull() && !tagsOnly) {
        VXLog(QStringLiteral("Please select out folder while not replace the original file."));
        return;
    }
    const QPointer<AppDelegate> self(this);
    const VXGainBlock report = [self](qint32 state, qint64) {
        if (!self)
            return;
        // Progress shows in the row itself; only an end can change the face.
        if (state == VXGainFinished)
            self->updateGainFace();
        self->batchReported(state);
    };
    // Jobs added while others run join their batch.
    bool batchRunning = false;
    for (const VXAudioGainPtr &item : std::as_const(m_batch))
        batchRunning = batchRunning || item->isRunning();
    if (!batchRunning) {
        m_batch.clear();
        m_batchClock.start();
    }
    const RQPopupMenuWndCtrl *popup = RQPopupMenuWndCtrl::sharePopupMenuWndCtrl();
    const bool inPlace = m_replaceOriginalFile || (tagsOnly && folder.isNull());
    VXJobSettings settings;
    settings.truePeakCeiling = popup->truePeakCeiling();
    settings.limitPeaks = popup->limitPeaks();
    settings.dualMono = popup->dualMono();
    settings.measureWithLoudnorm = m_ui->actionMeasureWithLoudnorm->isChecked();
    settings.skipWithin = popup->skipWithin();
    settings.preserveModificationTime = inPlace && m_ui->actionPreserveModificationTime->isChecked();
    settings.tagsOnly = tagsOnly;
    settings.treatAsAlbums = m_ui->actionTreatAsAlbums->isChecked();
    QList<VXAudioGainPtr> items;
    QStringList paths;
    for (const VXAudioGainPtr &item : selectedAudioGains()) {
        if (isEligible(*item)) {
            items.append(item);
            paths.append(item->inputFile());
        }
    }
    // The albums of this press: its own files, grouped by the first job to run.
    const auto albums
        = settings.treatAsAlbums ? std::make_shared<VXAlbumBatch>(paths, settings.measureFlags() & VXMeasureDualMono) : nullptr;
    bool started = false;
    for (const VXAudioGainPtr &item : std::as_const(items)) {
        // Copied now, so later changes of the window apply to the next press only.
        item->setReplaceOriginalFile(inPlace);
        if (!item->replaceOriginalFile())
            item->setOutFolder(folder);
        item->setJobSettings(settings);
        item->setAlbumBatch(albums);
        m_batch.append(item);
        item->gainWithBlock([report, self, weak = std::weak_ptr<VXAudioGain>(item)](qint32 state, qint64 code) {
            report(state, code);
            if (state == VXGainFinished && self)
                self->jobEnded(weak);
        });
        started = true;
    }
    if (started)
        setGainBtnFace(true);
}

void AppDelegate::batchReported(qint32 state)
{
    // A percent of one file is too fine to send on to the desktop.
    if (state == VXGainRunning && m_progressClock.isValid() && m_progressClock.elapsed() < 250)
        return;
    m_progressClock.start();
    qint64 done = 0;
    int succeeded = 0, failed = 0;
    bool running = false;
    for (const VXAudioGainPtr &item : std::as_const(m_batch)) {
        running = running || item->isRunning();
        if (item->state() == VXGainFinished) {
            done += 100;
            succeeded += item->retCode() == VXGainSucceeded;
            failed += item->retCode() == VXGainFailed;
        } else if (item->state() == VXGainRunning) {
            done += qBound(qint64(0), item->retCode(), qint64(100));
        }
    }
    if (running) {
        RQDesktopServices::setLauncherProgress(double(done) / (100.0 * qMax(1, int(m_batch.size()))), true);
        return;
    }
    RQDesktopServices::setLauncherProgress(0, false);
    // A short batch is watched; a long one may have been left behind another window.
    if (m_batchClock.isValid() && m_batchClock.elapsed() > kNotifyAfterMsecs && !m_window->isActiveWindow()
        && m_notify) {
        m_notify(tr("Gain finished"), failed == 0 ? tr("%n file(s) succeeded.", nullptr, succeeded)
                                                  : tr("%n file(s) succeeded, %1 failed.", nullptr, succeeded)
                                                        .arg(failed));
    }
    m_batch.clear();
    m_batchClock.invalidate();
}

void AppDelegate::updateGainFace()
{
    // Walks the list in place: this runs at every job's end, and copying
    // ten thousand items each time would show.
    bool running = false;
    const QList<int> rows = selectedRows();
    if (rows.isEmpty()) {
        for (const VXAudioGainPtr &item : m_audioGains->items()) {
            if (item->isRunning()) {
                running = true;
                break;
            }
        }
    } else {
        for (int row : rows) {
            const VXAudioGainPtr item = m_audioGains->at(row);
            if (item && item->isRunning()) {
                running = true;
                break;
            }
        }
    }
    setGainBtnFace(running);
}

void AppDelegate::setGainBtnFace(bool cancelFace)
{
    QPushButton *button = btnGain();
    button->setText(cancelFace ? tr("Cancel") : tr("Gain"));
    RQPalette::setTitleColor(button, RQPalette::lightTitle());
    button->setProperty("tag", cancelFace ? 1 : 0);
}

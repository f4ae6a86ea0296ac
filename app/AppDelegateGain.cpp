#include "app/AppDelegate.h"

#include "app/RQPalette.h"
#include "engine/codec/VXLog.h"
#include "views/RQPopupMenuWndCtrl.h"

#include <QPushButton>

namespace {
bool isEligible(const VXAudioGain &item)
{
    return item.state() == 0 || (item.state() == 3 && item.retCode() == -2);
}
} // namespace

void AppDelegate::gainAudioAction()
{
    if (btnGain()->property("tag").toInt() == 0) {
        if (!finalOutFolder().isNull() || m_replaceOriginalFile)
            gainAudios();
        else
            selectOutputFolder(true);
        return;
    }
    // Face "Cancel": only the chosen items that run; the face follows their
    // end reports.
    for (const VXAudioGainPtr &item : selectedAudioGains()) {
        if (item->isRunning())
            item->cancelGain();
    }
}

void AppDelegate::gainAudios()
{
    const QString folder = finalOutFolder();
    if (!m_replaceOriginalFile && folder.isNull()) {
        VXLog(QStringLiteral("Please select out folder while not replace the original file."));
        return;
    }
    const QPointer<AppDelegate> self(this);
    const VXGainBlock report = [self](qint32 state, qint64) {
        // Progress shows in the row itself; only an end can change the face.
        if (state == 3 && self)
            self->updateGainFace();
    };
    const RQPopupMenuWndCtrl *popup = RQPopupMenuWndCtrl::sharePopupMenuWndCtrl();
    const float ceiling = popup->truePeakCeiling();
    const bool limitPeaks = popup->limitPeaks();
    bool started = false;
    for (const VXAudioGainPtr &item : selectedAudioGains()) {
        if (!isEligible(*item))
            continue;
        // Copied now, so later changes of the window apply to the next press only.
        item->setReplaceOriginalFile(m_replaceOriginalFile);
        if (!item->replaceOriginalFile())
            item->setOutFolder(folder);
        item->setTruePeakCeiling(ceiling);
        item->setLimitPeaks(limitPeaks);
        item->gainWithBlock(report);
        started = true;
    }
    if (started)
        setGainBtnFace(true);
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
    button->setText(cancelFace ? QStringLiteral("Cancel") : QStringLiteral("Gain"));
    RQPalette::setTitleColor(button, RQPalette::lightTitle());
    button->setProperty("tag", cancelFace ? 1 : 0);
}

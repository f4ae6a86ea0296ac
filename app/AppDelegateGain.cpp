#include "app/AppDelegate.h"

#include "app/RQPalette.h"
#include "app/RQSettingsController.h"
#include "engine/codec/VXLog.h"

#include "ui_MainWindow.h"

#include <QPushButton>

// The Gain/Cancel button's commands and face; the jobs themselves are
// RQBatchController's.

void AppDelegate::gainAudioAction()
{
    if (m_batch->face() == RQBatchController::GainFace) {
        // Tags go into the files themselves unless a folder is there.
        if (!finalOutFolder().isNull() || replaceOriginalFile() || m_settings->settings().tagsOnly)
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
    const VXJobSettings &settings = m_settings->settings();
    if (!replaceOriginalFile() && folder.isNull() && !settings.tagsOnly) {
        VXLog(QStringLiteral("Please select out folder while not replace the original file."));
        return;
    }
    const bool inPlace = replaceOriginalFile() || (settings.tagsOnly && folder.isNull());
    if (m_batch->start(selectedAudioGains(), settings, folder, inPlace))
        setGainBtnFace(true);
}

void AppDelegate::jobEnded(const VXAudioGainPtr &item)
{
    updateGainFace();
    if (item)
        analyzeResult(item);
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
    m_batch->setFace(cancelFace ? RQBatchController::CancelFace : RQBatchController::GainFace);
}

void AppDelegate::paintGainFace()
{
    QPushButton *button = btnGain();
    button->setText(m_batch->face() == RQBatchController::CancelFace ? tr("Cancel") : tr("Gain"));
    RQPalette::setTitleColor(button, RQPalette::lightTitle());
}

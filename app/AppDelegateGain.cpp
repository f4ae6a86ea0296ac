#include "app/AppDelegate.h"

#include "app/RQPalette.h"
#include "app/RQSettingsController.h"
#include "engine/codec/VXLog.h"

#include "ui_MainWindow.h"

#include <QItemSelectionModel>
#include <QListView>
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
    // Only the chosen items that run or wait to; the face follows their end
    // reports.
    m_batch->cancel(selectedAudioGains());
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
    // Runs at every job's end and selection change: it reads the selection's
    // ranges in place, without listing ten thousand indexes.
    const QList<VXAudioGainPtr> &items = m_audioGains->items();
    const auto runs = [&items](int first, int last) {
        for (int row = qMax(0, first); row <= last && row < items.size(); ++row) {
            if (items.at(row)->isRunning())
                return true;
        }
        return false;
    };
    const QItemSelectionModel *selection = tableView()->selectionModel();
    const QItemSelection ranges = selection ? selection->selection() : QItemSelection();
    bool running = false;
    if (ranges.isEmpty()) {
        running = runs(0, int(items.size()) - 1);
    } else {
        for (const QItemSelectionRange &range : ranges) {
            if (range.isValid() && runs(range.top(), range.bottom())) {
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

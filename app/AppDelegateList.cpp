#include "app/AppDelegate.h"

#include "app/RQImportController.h"
#include "app/RQSettingsController.h"
#include "views/RQPopupMenuWndCtrl.h"

#include <QItemSelectionModel>
#include <QListView>
#include <algorithm>
#include <numeric>

bool AppDelegate::allowedImport() const
{
    return m_import->allowedImport();
}

bool AppDelegate::allowGain() const
{
    return allowedImport() && m_audioGains->count() > 0;
}

bool AppDelegate::canRemove() const
{
    const QItemSelectionModel *selection = tableView()->selectionModel();
    return allowedImport() && selection && selection->hasSelection();
}

QList<int> AppDelegate::selectedRows() const
{
    QList<int> rows;
    const QItemSelectionModel *selection = tableView()->selectionModel();
    if (!selection)
        return rows;
    const QModelIndexList indexes = selection->selectedRows();
    rows.reserve(indexes.size());
    for (const QModelIndex &index : indexes)
        rows.append(index.row());
    std::sort(rows.begin(), rows.end());
    return rows;
}

int AppDelegate::shownRow() const
{
    // The row with the keyboard focus when it is selected, else the first
    // selected; from the selection's ranges, not a list of its rows.
    const QItemSelectionModel *selection = tableView()->selectionModel();
    if (!selection)
        return -1;
    const int current = selection->currentIndex().row();
    if (current >= 0 && selection->isRowSelected(current))
        return current;
    int first = -1;
    for (const QItemSelectionRange &range : selection->selection()) {
        if (range.isValid() && (first < 0 || range.top() < first))
            first = range.top();
    }
    return first;
}

QList<VXAudioGainPtr> AppDelegate::selectedAudioGains() const
{
    const QList<int> rows = selectedRows();
    if (rows.isEmpty())
        return m_audioGains->audioGains();
    QList<VXAudioGainPtr> chosen;
    chosen.reserve(rows.size());
    for (int row : rows) {
        if (VXAudioGainPtr item = m_audioGains->at(row))
            chosen.append(item);
    }
    return chosen;
}

void AppDelegate::tableViewSelectionDidChange()
{
    // The view repaints the rows whose selection changed itself.
    updateDerivedFlags();
    emit selectedAudioGainsChanged();
    updateGainFace();
    updateLoudnessView();
}

void AppDelegate::updateDerivedFlags()
{
    const bool gain = allowGain();
    if (gain != m_allowGain) {
        m_allowGain = gain;
        emit allowGainChanged();
    }
    const bool remove = canRemove();
    if (remove != m_canRemove) {
        m_canRemove = remove;
        emit canRemoveChanged();
    }
}

void AppDelegate::removeGainsExceptProcessAtIndexes(const QList<int> &indexes)
{
    QList<int> removal;
    removal.reserve(indexes.size());
    for (int index : indexes) {
        const VXAudioGainPtr item = m_audioGains->at(index);
        if (item && !item->isRunning() && !m_batch->isPending(item.get()))
            removal.append(index);
    }
    m_audioGains->removeAudioGainsAtIndexes(removal);
    emit selectedAudioGainsChanged();
    updateGainFace();
}

void AppDelegate::removeSelected()
{
    const QList<int> rows = selectedRows();
    if (!rows.isEmpty())
        removeGainsExceptProcessAtIndexes(rows);
}

void AppDelegate::cleanGains()
{
    QList<int> all(m_audioGains->count());
    std::iota(all.begin(), all.end(), 0);
    removeGainsExceptProcessAtIndexes(all);
}

void AppDelegate::popupTargetLoudnessAdjustMenu(int row, const QRect &anchor)
{
    const VXAudioGainPtr item = m_audioGains->at(row);
    if (!item)
        return;
    RQPopupMenuWndCtrl *popup = RQPopupMenuWndCtrl::sharePopupMenuWndCtrl();
    popup->setTargetLoudness(item->targetLoudness());
    popup->setRow(row);
    // The popup hangs below the row's loudness image, its left edge on the
    // image's left edge.
    const QPoint global = tableView()->viewport()->mapToGlobal(anchor.bottomLeft() + QPoint(0, 1));
    popup->popupMenuWndWithLocation(global);
}

void AppDelegate::targetLoudnessChanged()
{
    const RQPopupMenuWndCtrl *popup = RQPopupMenuWndCtrl::sharePopupMenuWndCtrl();
    const float value = popup->targetLoudness();
    // Only the user's own choices are reported: the next files get the last one.
    m_settings->setTargetLoudness(value);
    if (!popup->applyToAll()) {
        const qint64 row = popup->row();
        // The list may have shrunk while the popup was open.
        if (row < 0 || row >= m_audioGains->count())
            return;
        const VXAudioGainPtr item = m_audioGains->at(int(row));
        if (item->allowedTargetLoudnessEdit())
            item->setTargetLoudness(value);
        return;
    }
    for (const VXAudioGainPtr &item : m_audioGains->audioGains()) {
        if (item->allowedTargetLoudnessEdit())
            item->setTargetLoudness(value);
    }
}

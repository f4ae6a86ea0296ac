#include "views/RQPopupActions.h"

#include "engine/VXAudioGainList.h"
#include "views/RQPopupMenuWndCtrl.h"

#include <QAbstractItemView>

void popupTargetLoudness(RQPopupMenuWndCtrl &popup, QAbstractItemView *view, int row, const QRect &anchor)
{
    if (!view || !view->model())
        return;
    const QModelIndex index = view->model()->index(row, 0);
    if (!index.isValid())
        return;
    popup.setTargetLoudness(index.data(VXAudioGainList::TargetLoudnessRole).toFloat());
    popup.setRow(row);
    // The popup's top edge lies on the image's bottom edge, its left edge
    // on the image's left edge.
    const QPoint below(anchor.left(), anchor.top() + anchor.height());
    popup.popupMenuWndWithLocation(view->viewport()->mapToGlobal(below));
}

void applyPopupValue(VXAudioGainList &list, const RQPopupMenuWndCtrl &popup)
{
    if (!popup.applyToAll()) {
        const qint64 row = popup.row();
        if (row < 0 || row >= list.count())
            return;
        const VXAudioGainPtr item = list.at(int(row));
        if (item && item->allowedTargetLoudnessEdit())
            item->setTargetLoudness(popup.targetLoudness());
        return;
    }
    const float value = popup.targetLoudness();
    for (const VXAudioGainPtr &item : list.audioGains()) {
        if (item->allowedTargetLoudnessEdit())
            item->setTargetLoudness(value);
    }
}

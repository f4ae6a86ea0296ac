#pragma once

#include <QRect>

class QAbstractItemView;
class RQPopupMenuWndCtrl;
class VXAudioGainList;

// The two halves of the target-loudness popup as the main window uses them.

// Presets the popup with the row's target (read through the view's model)
// and row, and opens it hanging below the anchor: the loudness image's rect
// in the view's viewport coordinates, as RQTableCellView reports it.
void popupTargetLoudness(RQPopupMenuWndCtrl &popup, QAbstractItemView *view, int row, const QRect &anchor);

// What "RQTargetLoudnessChaned" means: the popup's value goes into the item
// at its row, or with applyToAll into every item whose target may be edited.
// A stale row (the list shrank) and items that are running are left alone.
void applyPopupValue(VXAudioGainList &list, const RQPopupMenuWndCtrl &popup);

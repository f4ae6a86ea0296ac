#pragma once

#include "engine/VXJobSettings.h"

#include <QObject>

class QAction;
class RQPopupMenuWndCtrl;

// The settings of the next Gain, one value for the whole app: the popup and
// the Edit menu's checkable entries are its editors (they show it and write
// their changes to it), every change is stored at once as a unit, and Gain
// hands each item a copy. GUI thread only.
class RQSettingsController : public QObject {
    Q_OBJECT
public:
    // Starts from what is stored (defaults for what is missing or out of range).
    explicit RQSettingsController(QObject *parent = nullptr);

    const VXJobSettings &settings() const { return m_settings; }
    // Takes a valid value and stores it when it differs; an invalid one is
    // refused (false) and nothing changes.
    bool setSettings(const VXJobSettings &settings);
    // The target new rows get: the position last chosen in the popup.
    bool setTargetLoudness(float position);

    // Shows the value in the popup and takes the popup's edits.
    void attachPopup(RQPopupMenuWndCtrl *popup);
    // Shows one flag as the action's check mark and takes its toggles.
    void attachAction(QAction *action, bool VXJobSettings::*flag);

signals:
    void settingsChanged();

private:
    VXJobSettings m_settings;
};

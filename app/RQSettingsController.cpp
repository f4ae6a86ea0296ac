#include "app/RQSettingsController.h"

#include "views/RQPopupMenuWndCtrl.h"

#include <QAction>
#include <QSettings>

RQSettingsController::RQSettingsController(QObject *parent)
    : QObject(parent), m_settings(VXJobSettings::load(QSettings()))
{
}

bool RQSettingsController::setSettings(const VXJobSettings &settings)
{
    if (!settings.isValid())
        return false;
    if (settings == m_settings)
        return true;
    m_settings = settings;
    QSettings stored;
    m_settings.save(stored);
    emit settingsChanged();
    return true;
}

bool RQSettingsController::setTargetLoudness(float position)
{
    VXJobSettings s = m_settings;
    s.targetLoudness = position;
    return setSettings(s);
}

void RQSettingsController::attachPopup(RQPopupMenuWndCtrl *popup)
{
    popup->showJobSettings(m_settings);
    // Showing the value makes the popup report it back; equal, it is no edit.
    connect(popup, &RQPopupMenuWndCtrl::jobSettingsChanged, this,
            [this, popup] {
                if (!setSettings(popup->editedJobSettings(m_settings)))
                    popup->showJobSettings(m_settings);
            });
    connect(this, &RQSettingsController::settingsChanged, popup, [this, popup] { popup->showJobSettings(m_settings); });
}

void RQSettingsController::attachAction(QAction *action, bool VXJobSettings::*flag)
{
    action->setChecked(m_settings.*flag);
    connect(action, &QAction::toggled, this, [this, flag](bool on) {
        VXJobSettings s = m_settings;
        s.*flag = on;
        setSettings(s);
    });
    connect(this, &RQSettingsController::settingsChanged, action, [this, action, flag] { action->setChecked(m_settings.*flag); });
}

#pragma once

#include <QString>

// The desktop's services outside the window, over the session bus. Each
// does nothing where the desktop does not offer it.
namespace RQDesktopServices {

// The desktop entry's id, as the notifications and the launcher know us.
inline constexpr char kDesktopId[] = "org.evenloud.Evenloud";

// A desktop notification (org.freedesktop.Notifications).
void notify(const QString &summary, const QString &body);
// The progress bar on the app's launcher or taskbar entry
// (com.canonical.Unity.LauncherEntry), 0..1.
void setLauncherProgress(double progress, bool visible);

} // namespace RQDesktopServices

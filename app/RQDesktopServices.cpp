#include "app/RQDesktopServices.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QVariantMap>

namespace RQDesktopServices {

void notify(const QString &summary, const QString &body)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        return;
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.Notifications"), QStringLiteral("/org/freedesktop/Notifications"),
        QStringLiteral("org.freedesktop.Notifications"), QStringLiteral("Notify"));
    const QString id = QLatin1String(kDesktopId);
    call << QCoreApplication::applicationName() << uint(0) << id << summary << body << QStringList()
         << QVariantMap{{QStringLiteral("desktop-entry"), id}} << -1;
    // No reply is awaited: a missing or slow service must not hold the window.
    bus.send(call);
}

void setLauncherProgress(double progress, bool visible)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        return;
    QDBusMessage signal = QDBusMessage::createSignal(QStringLiteral("/org/evenloud/Evenloud/LauncherEntry"),
                                                     QStringLiteral("com.canonical.Unity.LauncherEntry"),
                                                     QStringLiteral("Update"));
    signal << QStringLiteral("application://%1.desktop").arg(QLatin1String(kDesktopId))
           << QVariantMap{{QStringLiteral("progress"), qBound(0.0, progress, 1.0)},
                          {QStringLiteral("progress-visible"), visible}};
    bus.send(signal);
}

} // namespace RQDesktopServices

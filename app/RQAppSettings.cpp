#include "app/RQAppSettings.h"

#include <QFileInfo>
#include <QSettings>

namespace RQAppSettings {

QString userSelectedOutFolder()
{
    const QString stored = QSettings().value(QLatin1String(kRQUserSelectedOutFolder)).toString();
    if (stored.isEmpty())
        return {};
    const QFileInfo info(stored);
    if (!info.isAbsolute() || !info.isDir())
        return {};
    return info.absoluteFilePath();
}

bool setUserSelectedOutFolder(const QString &folder)
{
    const QFileInfo info(folder);
    if (folder.isEmpty() || !info.isDir())
        return false;
    QSettings settings;
    settings.setValue(QLatin1String(kRQUserSelectedOutFolder), info.absoluteFilePath());
    settings.sync();
    return settings.status() == QSettings::NoError;
}

bool matchLoudness() { return QSettings().value(QLatin1String(kRQAuditionMatchLoudness), true).toBool(); }

void setMatchLoudness(bool on) { QSettings().setValue(QLatin1String(kRQAuditionMatchLoudness), on); }

bool showLoudnessPicture()
{
    return QSettings().value(QLatin1String(kRQShowLoudnessPicture), true).toBool();
}

void setShowLoudnessPicture(bool show)
{
    QSettings().setValue(QLatin1String(kRQShowLoudnessPicture), show);
}

} // namespace RQAppSettings

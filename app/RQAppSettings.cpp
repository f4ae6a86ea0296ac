#include "app/RQAppSettings.h"

#include "engine/VXLoudnessScale.h"
#include "engine/codec/VXCodecConstants.h"

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

float truePeakCeiling()
{
    bool ok = false;
    const float stored = QSettings().value(QLatin1String(kRQTruePeakCeiling)).toFloat(&ok);
    // A hand-edited file must not hand the engine a ceiling it refuses.
    if (!ok || !(stored >= VXMinTruePeakTarget && stored <= VXMaxTruePeakTarget))
        return VXDefaultTruePeakTarget;
    return stored;
}

void setTruePeakCeiling(float dbtp)
{
    QSettings settings;
    settings.setValue(QLatin1String(kRQTruePeakCeiling), qBound(VXMinTruePeakTarget, dbtp, VXMaxTruePeakTarget));
}

bool limitPeaks() { return QSettings().value(QLatin1String(kRQLimitPeaks), false).toBool(); }

void setLimitPeaks(bool limit) { QSettings().setValue(QLatin1String(kRQLimitPeaks), limit); }

bool preserveModificationTime()
{
    return QSettings().value(QLatin1String(kRQPreserveModificationTime), false).toBool();
}

void setPreserveModificationTime(bool keep)
{
    QSettings().setValue(QLatin1String(kRQPreserveModificationTime), keep);
}

float targetLoudness()
{
    bool ok = false;
    const float stored = QSettings().value(QLatin1String(kRQTargetLoudness)).toFloat(&ok);
    if (!ok || !(stored >= VXLoudnessScale::kMinPosition && stored <= VXLoudnessScale::kMaxPosition))
        return VXLoudnessScale::kDefaultPosition;
    return stored;
}

void setTargetLoudness(float position) { QSettings().setValue(QLatin1String(kRQTargetLoudness), position); }

bool dualMono() { return QSettings().value(QLatin1String(kRQDualMono), false).toBool(); }

void setDualMono(bool dualMono) { QSettings().setValue(QLatin1String(kRQDualMono), dualMono); }

bool measureWithLoudnorm() { return QSettings().value(QLatin1String(kRQMeasureWithLoudnorm), false).toBool(); }

void setMeasureWithLoudnorm(bool loudnorm) { QSettings().setValue(QLatin1String(kRQMeasureWithLoudnorm), loudnorm); }

double skipWithin()
{
    bool ok = false;
    const double stored = QSettings().value(QLatin1String(kRQSkipWithin)).toDouble(&ok);
    return ok && stored >= 0.0 ? stored : NAN;
}

void setSkipWithin(double lu)
{
    // Nothing stored stands for "skip nothing"; NaN does not survive every format.
    if (lu >= 0.0)
        QSettings().setValue(QLatin1String(kRQSkipWithin), lu);
    else
        QSettings().remove(QLatin1String(kRQSkipWithin));
}

bool treatAsAlbums() { return QSettings().value(QLatin1String(kRQTreatAsAlbums), false).toBool(); }

void setTreatAsAlbums(bool albums) { QSettings().setValue(QLatin1String(kRQTreatAsAlbums), albums); }

bool tagsOnly() { return QSettings().value(QLatin1String(kRQTagsOnly), false).toBool(); }

void setTagsOnly(bool tagsOnly) { QSettings().setValue(QLatin1String(kRQTagsOnly), tagsOnly); }

} // namespace RQAppSettings

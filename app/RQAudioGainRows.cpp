#include "app/RQAudioGainRows.h"

QVariant RQAudioGainRows::data(const QModelIndex &index, int role) const
{
    if (role != Qt::AccessibleDescriptionRole)
        return VXAudioGainList::data(index, role);
    const VXAudioGain *item = VXAudioGainList::data(index, ItemRole).value<VXAudioGain *>();
    return item ? describe(*item) : QVariant();
}

QString RQAudioGainRows::describe(const VXAudioGain &item)
{
    QStringList parts;
    const QString size = item.formatInputFileSize();
    if (!size.isEmpty())
        parts << size;
    const QString duration = item.formatDuration();
    if (!duration.isEmpty())
        parts << duration;
    parts << tr("target %1 (%2 LUFS)")
                 .arg(item.formatTargetLoudness())
                 .arg(double(item.loudnormValue()), 0, 'f', 1);
    const qint64 code = item.retCode();
    switch (item.state()) {
    case 1:
        parts << tr("started");
        break;
    case 2:
        parts << tr("running, %1%").arg(qBound(qint64(0), code, qint64(100)));
        break;
    case 3: {
        const QString ended = code == 0 ? tr("succeeded") : code == -2 ? tr("cancelled") : tr("failed");
        const QString outcome = item.outcomeText();
        // A cancel's outcome is the same word.
        parts << (outcome.isEmpty() || code == -2 ? ended : ended + QStringLiteral(": ") + outcome);
        break;
    }
    default:
        parts << tr("waiting");
    }
    return parts.join(QStringLiteral(", "));
}

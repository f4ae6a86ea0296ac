#include "app/RQAudioGainRows.h"

#include "engine/VXGainState.h"

namespace {
QString figure(double v, const char *unit)
{
    return std::isfinite(v) ? QStringLiteral("%1 %2").arg(v, 0, 'f', 1).arg(QLatin1String(unit)) : QStringLiteral("–");
}

QString measuredText(const VXLoudness &l)
{
    return RQAudioGainRows::tr("measured %1, true peak %2, range %3")
        .arg(figure(l.integrated, "LUFS"), figure(l.truePeak, "dBTP"), figure(l.range, "LU"));
}
} // namespace

RQAudioGainRows::RQAudioGainRows(QObject *parent) : VXAudioGainList(parent)
{
    // A removed item's figures go with it: its address may come back.
    connect(this, &QAbstractItemModel::rowsAboutToBeRemoved, this, [this](const QModelIndex &, int first, int last) {
        for (int row = first; row <= last; ++row)
            m_measured.remove(at(row).get());
    });
    connect(this, &QAbstractItemModel::modelAboutToBeReset, this, [this] { m_measured.clear(); });
}

QVariant RQAudioGainRows::data(const QModelIndex &index, int role) const
{
    if (role != Qt::AccessibleDescriptionRole && role != Qt::ToolTipRole)
        return VXAudioGainList::data(index, role);
    const VXAudioGain *item = VXAudioGainList::data(index, ItemRole).value<VXAudioGain *>();
    if (!item)
        return {};
    const Measured *m = measured(item);
    if (role == Qt::AccessibleDescriptionRole)
        return describe(*item, m);
    if (!m)
        return {};
    QString tip = measuredText(m->input);
    if (m->output.measured())
        tip += QLatin1Char('\n') + tr("result %1").arg(figure(m->output.integrated, "LUFS"));
    return tip;
}

const RQAudioGainRows::Measured *RQAudioGainRows::measured(const VXAudioGain *item) const
{
    const auto it = m_measured.constFind(item);
    return it == m_measured.constEnd() ? nullptr : &it.value();
}

void RQAudioGainRows::setMeasured(const VXAudioGain *item, const VXLoudness &loudness, bool output)
{
    const int row = indexOf(item);
    if (row < 0)
        return;
    Measured &m = m_measured[item];
    VXLoudness &kept = output ? m.output : m.input;
    kept = loudness;
    kept.steps = {};  // the picture needs the curve, not what it was made from: ten thousand rows add up
    noteRowChanged(item, {Qt::ToolTipRole, Qt::AccessibleDescriptionRole});
}

QString RQAudioGainRows::describe(const VXAudioGain &item, const Measured *measured)
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
    if (measured)
        parts << measuredText(measured->input);
    const qint64 code = item.retCode();
    switch (item.state()) {
    case VXGainStarted:
        parts << tr("started");
        break;
    case VXGainRunning:
        parts << tr("running, %1%").arg(qBound(qint64(0), code, qint64(100)));
        break;
    case VXGainFinished: {
        const QString ended = code == VXGainSucceeded ? tr("succeeded")
            : code == VXGainCancelled                  ? tr("cancelled")
                                                       : tr("failed");
        const QString outcome = item.outcomeText();
        // A cancel's outcome is the same word.
        parts << (outcome.isEmpty() || code == VXGainCancelled ? ended : ended + QStringLiteral(": ") + outcome);
        break;
    }
    default:
        parts << tr("waiting");
    }
    return parts.join(QStringLiteral(", "));
}

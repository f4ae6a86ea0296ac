#include "engine/codec/VXGainRecord.h"

#include <algorithm>

namespace vx {

QString GainRecord::text() const
{
    QStringList parts{QStringLiteral("v=1"), QStringLiteral("kind=") + kind};
    if (kind == QLatin1String("opus")) {
        QStringList gains;
        for (const int g : opusGains)
            gains << QString::number(g);
        parts << QStringLiteral("gain=") + gains.join(QLatin1Char(',')) << QStringLiteral("delta=%1").arg(opusDelta);
    } else {
        parts << QStringLiteral("steps=%1").arg(steps) << QStringLiteral("fields=%1").arg(fields);
        QStringList list;
        long last = 0;
        for (const auto &[index, original] : clamped) {
            list << QStringLiteral("%1:%2").arg(index - last).arg(original);
            last = index;
        }
        if (!list.isEmpty())
            parts << QStringLiteral("clamped=") + list.join(QLatin1Char(','));
    }
    return (parts + extra).join(QLatin1Char(';'));
}

std::optional<GainRecord> GainRecord::parse(const QString &text)
{
    GainRecord r;
    bool version = false;
    for (const QString &part : text.trimmed().split(QLatin1Char(';'), Qt::SkipEmptyParts)) {
        const qsizetype eq = part.indexOf(QLatin1Char('='));
        if (eq <= 0)
            return std::nullopt;
        const QString key = part.left(eq), value = part.mid(eq + 1);
        bool ok = true;
        if (key == QLatin1String("v")) {
            version = value == QLatin1String("1");
        } else if (key == QLatin1String("kind")) {
            r.kind = value;
        } else if (key == QLatin1String("steps")) {
            r.steps = value.toInt(&ok);
        } else if (key == QLatin1String("fields")) {
            r.fields = value.toLong(&ok);
        } else if (key == QLatin1String("delta")) {
            r.opusDelta = value.toInt(&ok);
        } else if (key == QLatin1String("gain")) {
            for (const QString &g : value.split(QLatin1Char(','), Qt::SkipEmptyParts))
                if (ok)
                    r.opusGains.push_back(g.toInt(&ok));
        } else if (key == QLatin1String("clamped")) {
            long index = 0;
            for (const QString &entry : value.split(QLatin1Char(','), Qt::SkipEmptyParts)) {
                const QStringList pair = entry.split(QLatin1Char(':'));
                bool a = false, b = false;
                if (pair.size() != 2)
                    return std::nullopt;
                index += pair[0].toLong(&a);
                const int original = pair[1].toInt(&b);
                if (!a || !b || original < 0 || original > 255)
                    return std::nullopt;
                r.clamped[index] = original;
            }
        } else {
            r.extra << part;
        }
        if (!ok)
            return std::nullopt;
    }
    const bool known = r.kind == QLatin1String("opus") ? !r.opusGains.empty()
                                                       : (r.kind == QLatin1String("mp3") || r.kind == QLatin1String("aac"));
    if (!version || !known)
        return std::nullopt;
    return r;
}

StepEditor::StepEditor(int steps, const std::optional<GainRecord> &previous) : m_steps(steps)
{
    if (previous) {
        m_previous = previous->steps;
        m_originals = previous->clamped;
    }
}

StepEditor StepEditor::undo(const GainRecord &record)
{
    StepEditor e;
    e.m_undo = true;
    e.m_previous = record.steps;
    e.m_originals = record.clamped;
    return e;
}

std::optional<int> StepEditor::next(int value, int lo, int hi)
{
    const long index = m_index++;
    const auto known = m_originals.find(index);
    const int original = known != m_originals.end() ? known->second : value - m_previous;
    if (m_undo) {
        if (original < 0 || original > 255)
            return std::nullopt;
        return original;
    }
    const int wanted = value + m_steps;
    const int written = std::clamp(wanted, lo, hi);
    if (written != wanted)
        ++m_clampedNow;
    // Whatever no longer follows from the total steps is remembered.
    if (written != original + m_previous + m_steps)
        m_originals[index] = original;
    else
        m_originals.erase(index);
    return written;
}

GainRecord StepEditor::record(const QString &kind) const
{
    GainRecord r;
    r.kind = kind;
    r.steps = m_previous + m_steps;
    r.fields = m_index;
    r.clamped = m_originals;
    return r;
}

} // namespace vx

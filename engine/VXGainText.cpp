// The item's figures in words, as the rows, the table and the command line
// show them.
#include "engine/VXGainText.h"

#include "engine/codec/VXCodecConstants.h"

#include <QStringList>
#include <cmath>

QString VXOutcomeText(qint32 state, qint64 retCode, const VXGainResult &r)
{
    if (state != VXGainFinished)
        return {};
    if (retCode == VXGainCancelled)
        return QStringLiteral("Cancelled");
    if (retCode != VXGainSucceeded)
        return r.reason.isEmpty() ? QStringLiteral("Failed") : r.reason;
    // U+2212 for the minus, as typeset figures have it.
    auto figure = [](double v, const char *unit) {
        return std::isfinite(v) ? QString::number(v, 'f', 1).replace(QLatin1Char('-'), QChar(0x2212))
                + QLatin1Char(' ') + QLatin1String(unit)
                                : QStringLiteral("silent");
    };
    QStringList parts;
    if (r.skipped) {
        // Left as it was: the level that was already close enough.
        parts << QStringLiteral("skipped") << figure(r.measuredI, "LUFS");
    } else if (r.lossless.restored) {
        parts << QStringLiteral("restored: the original gain fields");
    } else if (r.tagged) {
        // Whole steps in the gain fields, and the rest in the tags.
        if (r.normalization.startsWith(QLatin1String("lossless")))
            parts << figure(r.outputI, "LUFS") << r.normalization;
        // What a player will apply; the audio itself is as it was.
        parts << QStringLiteral("tagged: track %1").arg(figure(r.tags.trackGainDb, "dB"));
        if (std::isfinite(r.tags.albumGainDb))
            parts << QStringLiteral("album %1").arg(figure(r.tags.albumGainDb, "dB"));
    } else {
        parts << figure(r.outputI, "LUFS");
        if (std::isfinite(r.outputTp))
            parts << figure(r.outputTp, "dBTP");
        if (!r.normalization.isEmpty())
            parts << r.normalization;
    }
    parts << VXLosslessNotes(r);
    if (!r.album.isEmpty())
        parts << QStringLiteral("album \u201c%1\u201d").arg(r.album);
    if (!r.warning.isEmpty())
        parts << r.warning;
    return parts.join(QStringLiteral(" \u00b7 "));
}

QStringList VXLosslessNotes(const VXGainResult &r)
{
    QStringList notes;
    const VXGainResult::Lossless &l = r.lossless;
    if (!l.asked || l.restored)
        return notes;
    if (!l.fallback.isEmpty())
        notes << QStringLiteral("not lossless: %1").arg(l.fallback);
    if (r.normalization == QLatin1String("lossless-step") && std::isfinite(l.offsetDb))
        notes << QStringLiteral("%1 dB %2 the plan in whole 1.5 dB steps")
                     .arg(std::fabs(l.offsetDb), 0, 'f', 2)
                     .arg(l.offsetDb < 0 ? QStringLiteral("under") : QStringLiteral("over"));
    if (l.clamped > 0)
        notes << QStringLiteral("held at the gain field's limit in %1 of %2 places").arg(l.clamped).arg(l.fields);
    return notes;
}

QString VXFormatSize(quint64 bytes)
{
    if (bytes < 1024)
        return QString::asprintf("%lluB", static_cast<unsigned long long>(bytes));
    const float value = float(bytes);
    if (bytes < 1048576)
        return QString::asprintf("%.2fKB", double(value * (1.0f / 1024.0f)));
    return QString::asprintf("%.2fMB", double(value * (1.0f / 1048576.0f)));
}

QString VXFormatDuration(quint64 ticks)
{
    const unsigned long long s = ticks / VXTimebase;
    if (s < 3600)
        return QString::asprintf("%02llu:%02llu", s / 60, s % 60);
    return QString::asprintf("%02llu:%02llu:%02llu", s / 3600, (s % 3600) / 60, s % 60);
}

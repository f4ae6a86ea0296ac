#include "cli/CliReport.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <cmath>
#include <limits>

QString outcomeName(CliOutcome outcome)
{
    switch (outcome) {
    case CliOutcome::Ok: return QStringLiteral("ok");
    case CliOutcome::OnePass: return QStringLiteral("one-pass");
    case CliOutcome::Skipped: return QStringLiteral("skipped");
    case CliOutcome::Analyzed: return QStringLiteral("analyzed");
    case CliOutcome::Tagged: return QStringLiteral("tagged");
    case CliOutcome::Failed: return QStringLiteral("failed");
    case CliOutcome::Cancelled: return QStringLiteral("cancelled");
    case CliOutcome::Refused: return QStringLiteral("refused");
    case CliOutcome::Missing: return QStringLiteral("missing");
    }
    return {};
}

bool outcomeSucceeded(CliOutcome outcome)
{
    return outcome == CliOutcome::Ok || outcome == CliOutcome::OnePass || outcome == CliOutcome::Skipped
        || outcome == CliOutcome::Analyzed || outcome == CliOutcome::Tagged;
}

double measuredValue(const CliFileResult &r, const char *key)
{
    const QVariant v = r.measurement.value(QLatin1String(key));
    bool ok = false;
    const double d = v.toDouble(&ok);
    return ok && std::isfinite(d) ? d : std::numeric_limits<double>::quiet_NaN();
}

namespace {

QString number(double v)
{
    return std::isfinite(v) ? QString::number(v, 'f', 1) : std::isinf(v) ? QStringLiteral("silent") : QStringLiteral("-");
}

QJsonValue jsonNumber(double v)
{
    return std::isfinite(v) ? QJsonValue(v) : QJsonValue();
}

QString signedNumber(double v) { return std::isnan(v) ? QStringLiteral("-") : QString::asprintf("%+.2f", v); }

// Columns padded to their widest cell: numbers line up on the right, the
// columns named in leftColumns on the left, and the last one runs free.
QString rightAligned(const QList<QStringList> &rows, const QList<qsizetype> &leftColumns)
{
    QList<qsizetype> widths(rows.first().size(), 0);
    for (const QStringList &row : rows)
        for (qsizetype c = 0; c < row.size(); ++c)
            widths[c] = std::max(widths[c], row[c].size());
    QString out;
    for (const QStringList &row : rows) {
        QString line;
        for (qsizetype c = 0; c < row.size(); ++c)
            line += c == row.size() - 1       ? row[c]
                : leftColumns.contains(c) ? row[c].leftJustified(widths[c]) + QStringLiteral("  ")
                                          : row[c].rightJustified(widths[c]) + QStringLiteral("  ");
        out += line + QLatin1Char('\n');
    }
    return out;
}

// One line an album, after the files: its figures and the gain every track
// of it took (or, with tags only, the album gain and peak written).
QString albumTable(const QList<CliFileResult> &results, bool tags)
{
    QList<QStringList> rows{{QStringLiteral("ALBUM LUFS"), QStringLiteral("dBTP"), QStringLiteral("LRA"),
                             tags ? QStringLiteral("TAG dB") : QStringLiteral("GAIN dB"),
                             tags ? QStringLiteral("TAG PEAK") : QStringLiteral("KIND"), QStringLiteral("TRACKS"),
                             QStringLiteral("ALBUM")}};
    QStringList seen;
    for (const CliFileResult &r : results) {
        if (r.album.isEmpty() || seen.contains(r.album))
            continue;
        seen << r.album;
        const auto tracks = std::count_if(results.begin(), results.end(),
                                          [&](const CliFileResult &o) { return o.album == r.album; });
        double tagGain = NAN, tagPeak = NAN;
        for (const CliFileResult &o : results)
            if (o.album == r.album && std::isfinite(o.tagAlbumGain)) {
                tagGain = o.tagAlbumGain;
                tagPeak = o.tagAlbumPeak;
            }
        rows << QStringList{number(r.albumI), number(r.albumTp), number(r.albumLra),
                            tags ? signedNumber(tagGain) : signedNumber(r.albumGainDb),
                            tags ? (std::isnan(tagPeak) ? QStringLiteral("-") : QString::number(tagPeak, 'f', 6))
                                 : (r.albumNormalization.isEmpty() ? QStringLiteral("-") : r.albumNormalization),
                            QString::number(tracks), r.album};
    }
    return rows.size() > 1 ? QStringLiteral("\n") + rightAligned(rows, {}) : QString();
}

} // namespace

QByteArray formatTable(const QList<CliFileResult> &results)
{
    const QStringList header = {QStringLiteral("RESULT"),   QStringLiteral("IN LUFS"),  QStringLiteral("dBTP"),
                                QStringLiteral("LRA"),      QStringLiteral("GAIN dB"),  QStringLiteral("OUT LUFS"),
                                QStringLiteral("dBTP"),     QStringLiteral("LRA"),      QStringLiteral("KIND"),
                                QStringLiteral("TIME"),     QStringLiteral("FILE")};
    // The maxima only where something measured them (--analyze, --plot).
    const bool maxima = std::any_of(results.begin(), results.end(),
                                    [](const CliFileResult &r) { return !std::isnan(r.maxShortTerm); });
    QList<QStringList> rows{header};
    if (maxima)
        rows.first() = rows.first().mid(0, 4) + QStringList{QStringLiteral("MAX S"), QStringLiteral("MAX M")}
            + rows.first().mid(4);
    // What --tags-only wrote, before the file name.
    const bool tags = std::any_of(results.begin(), results.end(),
                                  [](const CliFileResult &r) { return r.outcome == CliOutcome::Tagged; });
    if (tags)
        rows.first() = rows.first().mid(0, rows.first().size() - 1)
            + QStringList{QStringLiteral("TAG dB"), QStringLiteral("TAG PEAK"), rows.first().last()};
    for (const CliFileResult &r : results) {
        QString file = r.input;
        if (!r.output.isEmpty() && r.output != r.input)
            file += QStringLiteral(" -> ") + r.output;
        if (!r.reason.isEmpty())
            file += QStringLiteral(" (") + r.reason + QLatin1Char(')');
        if (!r.warning.isEmpty())
            file += QStringLiteral(" (warning: ") + r.warning + QLatin1Char(')');
        if (!r.album.isEmpty())
            file += QStringLiteral(" [") + r.album + QLatin1Char(']');
        const bool ran = r.outcome != CliOutcome::Refused && r.outcome != CliOutcome::Missing;
        rows << QStringList{outcomeName(r.outcome),
                            number(measuredValue(r, "input_i")),
                            number(measuredValue(r, "input_tp")),
                            number(measuredValue(r, "input_lra")),
                            std::isnan(r.gainDb) ? QStringLiteral("-") : QString::asprintf("%+.1f", r.gainDb),
                            number(r.outputI),
                            number(r.outputTp),
                            number(r.outputLra),
                            r.normalization.isEmpty() ? QStringLiteral("-") : r.normalization,
                            ran ? QString::number(r.seconds, 'f', 1) + QLatin1Char('s') : QStringLiteral("-"),
                            file};
        if (maxima)
            rows.last() = rows.last().mid(0, 4) + QStringList{number(r.maxShortTerm), number(r.maxMomentary)}
                + rows.last().mid(4);
        if (tags)
            rows.last() = rows.last().mid(0, rows.last().size() - 1)
                + QStringList{signedNumber(r.tagTrackGain),
                              std::isnan(r.tagTrackPeak) ? QStringLiteral("-") : QString::number(r.tagTrackPeak, 'f', 6),
                              rows.last().last()};
    }
    const qsizetype kindColumn = maxima ? 10 : 8;
    const QString out = rightAligned(rows, {0, kindColumn});
    return (out + albumTable(results, tags)).toUtf8();
}

QByteArray formatJson(const QList<CliFileResult> &results)
{
    return QJsonDocument(jsonRecords(results)).toJson(QJsonDocument::Indented);
}

QJsonArray jsonRecords(const QList<CliFileResult> &results)
{
    auto rounded = [](double v) { return jsonNumber(std::isnan(v) ? v : std::round(v * 100.0) / 100.0); };
    QJsonArray array;
    for (const CliFileResult &r : results) {
        QJsonObject o;
        // Bumped whenever a field changes meaning; new fields keep it.
        o[QStringLiteral("schema_version")] = 2;
        o[QStringLiteral("input")] = r.input;
        o[QStringLiteral("output")] = r.output.isEmpty() ? QJsonValue() : QJsonValue(r.output);
        o[QStringLiteral("result")] = outcomeName(r.outcome);
        if (!r.reason.isEmpty())
            o[QStringLiteral("reason")] = r.reason;
        if (!r.warning.isEmpty())
            o[QStringLiteral("warning")] = r.warning;
        o[QStringLiteral("target_lufs")] = std::round(double(r.targetLufs) * 100.0) / 100.0;
        for (const char *key : {"input_i", "input_tp", "input_lra", "input_thresh", "target_offset"})
            o[QLatin1String(key)] = jsonNumber(measuredValue(r, key));
        o[QStringLiteral("gain_db")] = rounded(r.gainDb);
        o[QStringLiteral("output_i")] = rounded(r.outputI);
        o[QStringLiteral("output_tp")] = rounded(r.outputTp);
        o[QStringLiteral("output_lra")] = rounded(r.outputLra);
        o[QStringLiteral("max_short_term")] = rounded(r.maxShortTerm);
        o[QStringLiteral("max_momentary")] = rounded(r.maxMomentary);
        o[QStringLiteral("output_max_short_term")] = rounded(r.outputMaxShortTerm);
        o[QStringLiteral("output_max_momentary")] = rounded(r.outputMaxMomentary);
        o[QStringLiteral("normalization")] = r.normalization.isEmpty() ? QJsonValue() : QJsonValue(r.normalization);
        o[QStringLiteral("correction_passes")] = r.corrections;
        if (!r.otherStreams.isEmpty()) {
            QJsonArray streams;
            for (const VXGainResult::Stream &s : r.otherStreams)
                streams.append(QJsonObject{{QStringLiteral("stream"), s.index},
                                           {QStringLiteral("gain_db"), rounded(s.gainDb)},
                                           {QStringLiteral("normalization"), s.normalization}});
            o[QStringLiteral("other_audio_streams")] = streams;
        }
        if (!r.album.isEmpty())
            o[QStringLiteral("album")] = QJsonObject{{QStringLiteral("name"), r.album},
                                                     {QStringLiteral("input_i"), rounded(r.albumI)},
                                                     {QStringLiteral("input_tp"), rounded(r.albumTp)},
                                                     {QStringLiteral("input_lra"), rounded(r.albumLra)},
                                                     {QStringLiteral("gain_db"), rounded(r.albumGainDb)},
                                                     {QStringLiteral("normalization"), r.albumNormalization}};
        if (r.outcome == CliOutcome::Tagged) {
            // Peaks as written, to six places: players multiply by them.
            auto peak = [](double v) { return jsonNumber(std::isnan(v) ? v : std::round(v * 1e6) / 1e6); };
            o[QStringLiteral("tags")] = QJsonObject{{QStringLiteral("track_gain_db"), rounded(r.tagTrackGain)},
                                                    {QStringLiteral("track_peak"), peak(r.tagTrackPeak)},
                                                    {QStringLiteral("album_gain_db"), rounded(r.tagAlbumGain)},
                                                    {QStringLiteral("album_peak"), peak(r.tagAlbumPeak)}};
        }
        o[QStringLiteral("seconds")] = std::round(r.seconds * 1000.0) / 1000.0;
        array.append(o);
    }
    return array;
}

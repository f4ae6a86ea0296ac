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
    case CliOutcome::Restored: return QStringLiteral("restored");
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
        || outcome == CliOutcome::Analyzed || outcome == CliOutcome::Tagged || outcome == CliOutcome::Restored;
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

// A row padded to the widths: numbers line up on the right, the columns
// named in leftColumns on the left, and the last one runs free.
QString padded(const QStringList &row, const QList<qsizetype> &widths, const QList<qsizetype> &leftColumns)
{
    QString line;
    for (qsizetype c = 0; c < row.size(); ++c)
        line += c == row.size() - 1       ? row[c]
            : leftColumns.contains(c) ? row[c].leftJustified(widths[c]) + QStringLiteral("  ")
                                      : row[c].rightJustified(widths[c]) + QStringLiteral("  ");
    return line + QLatin1Char('\n');
}

// Every column a row can have; the maxima and the tags are shown only where
// some result has them.
enum Column { Result, InI, InTp, InLra, MaxS, MaxM, Gain, OutI, OutTp, OutLra, Kind, Time, TagGain, TagPeak, File, ColumnCount };

QStringList headerCells()
{
    return {QStringLiteral("RESULT"), QStringLiteral("IN LUFS"), QStringLiteral("dBTP"),     QStringLiteral("LRA"),
            QStringLiteral("MAX S"),  QStringLiteral("MAX M"),   QStringLiteral("GAIN dB"),  QStringLiteral("OUT LUFS"),
            QStringLiteral("dBTP"),   QStringLiteral("LRA"),     QStringLiteral("KIND"),     QStringLiteral("TIME"),
            QStringLiteral("TAG dB"), QStringLiteral("TAG PEAK"), QStringLiteral("FILE")};
}

QStringList cellsOf(const CliFileResult &r)
{
    QString file = r.input;
    if (!r.output.isEmpty() && r.output != r.input)
        file += QStringLiteral(" -> ") + r.output;
    if (!r.reason.isEmpty())
        file += QStringLiteral(" (") + r.reason + QLatin1Char(')');
    if (!r.warning.isEmpty())
        file += QStringLiteral(" (warning: ") + r.warning + QLatin1Char(')');
    if (!r.notes.isEmpty())
        file += QStringLiteral(" (") + r.notes.join(QStringLiteral("; ")) + QLatin1Char(')');
    if (!r.album.isEmpty())
        file += QStringLiteral(" [") + r.album + QLatin1Char(']');
    const bool ran = r.outcome != CliOutcome::Refused && r.outcome != CliOutcome::Missing;
    return {outcomeName(r.outcome),
            number(measuredValue(r, "input_i")),
            number(measuredValue(r, "input_tp")),
            number(measuredValue(r, "input_lra")),
            number(r.maxShortTerm),
            number(r.maxMomentary),
            std::isnan(r.gainDb) ? QStringLiteral("-") : QString::asprintf("%+.1f", r.gainDb),
            number(r.outputI),
            number(r.outputTp),
            number(r.outputLra),
            r.normalization.isEmpty() ? QStringLiteral("-") : r.normalization,
            ran ? QString::number(r.seconds, 'f', 1) + QLatin1Char('s') : QStringLiteral("-"),
            signedNumber(r.tagTrackGain),
            std::isnan(r.tagTrackPeak) ? QStringLiteral("-") : QString::number(r.tagTrackPeak, 'f', 6),
            file};
}

} // namespace

CliTable::CliTable() : m_widths(ColumnCount, 0)
{
    const QStringList header = headerCells();
    for (qsizetype c = 0; c < ColumnCount; ++c)
        m_widths[c] = header[c].size();
}

void CliTable::measure(const CliFileResult &r)
{
    const QStringList cells = cellsOf(r);
    for (qsizetype c = 0; c < ColumnCount; ++c)
        m_widths[c] = std::max(m_widths[c], cells[c].size());
    m_maxima = m_maxima || !std::isnan(r.maxShortTerm);
    m_tags = m_tags || !std::isnan(r.tagTrackGain);
    if (r.album.isEmpty())
        return;
    auto it = std::find_if(m_albums.begin(), m_albums.end(), [&](const Album &a) { return a.name == r.album; });
    if (it == m_albums.end()) {
        m_albums.append({r.album, r.albumI, r.albumTp, r.albumLra, r.albumGainDb, r.albumNormalization});
        it = m_albums.end() - 1;
    }
    ++it->tracks;
    if (std::isfinite(r.tagAlbumGain)) {
        it->tagGain = r.tagAlbumGain;
        it->tagPeak = r.tagAlbumPeak;
    }
}

QList<qsizetype> CliTable::shown() const
{
    QList<qsizetype> columns;
    for (qsizetype c = 0; c < ColumnCount; ++c)
        if (((c != MaxS && c != MaxM) || m_maxima) && ((c != TagGain && c != TagPeak) || m_tags))
            columns << c;
    return columns;
}

QByteArray CliTable::line(const QStringList &cells) const
{
    QStringList row;
    QList<qsizetype> widths, left;
    for (const qsizetype c : shown()) {
        if (c == Result || c == Kind)
            left << row.size();
        row << cells[c];
        widths << m_widths[c];
    }
    return padded(row, widths, left).toUtf8();
}

QByteArray CliTable::header() const { return line(headerCells()); }

QByteArray CliTable::row(const CliFileResult &r) const { return line(cellsOf(r)); }

// One line an album, after the files: its figures and the gain every track
// of it took (or, with tags only, the album gain and peak written).
QByteArray CliTable::albums() const
{
    if (m_albums.isEmpty())
        return {};
    QList<QStringList> rows{{QStringLiteral("ALBUM LUFS"), QStringLiteral("dBTP"), QStringLiteral("LRA"),
                             m_tags ? QStringLiteral("TAG dB") : QStringLiteral("GAIN dB"),
                             m_tags ? QStringLiteral("TAG PEAK") : QStringLiteral("KIND"), QStringLiteral("TRACKS"),
                             QStringLiteral("ALBUM")}};
    for (const Album &a : m_albums)
        rows << QStringList{number(a.integrated), number(a.truePeak), number(a.range),
                            m_tags ? signedNumber(a.tagGain) : signedNumber(a.gainDb),
                            m_tags ? (std::isnan(a.tagPeak) ? QStringLiteral("-") : QString::number(a.tagPeak, 'f', 6))
                                   : (a.normalization.isEmpty() ? QStringLiteral("-") : a.normalization),
                            QString::number(a.tracks), a.name};
    QList<qsizetype> widths(rows.first().size(), 0);
    for (const QStringList &row : rows)
        for (qsizetype c = 0; c < row.size(); ++c)
            widths[c] = std::max(widths[c], row[c].size());
    QString out = QStringLiteral("\n");
    for (const QStringList &row : rows)
        out += padded(row, widths, {});
    return out.toUtf8();
}

QByteArray formatTable(const QList<CliFileResult> &results)
{
    CliTable table;
    for (const CliFileResult &r : results)
        table.measure(r);
    QByteArray out = table.header();
    for (const CliFileResult &r : results)
        out += table.row(r);
    return out + table.albums();
}

QJsonObject resultObject(const CliFileResult &r)
{
    auto rounded = [](double v) { return jsonNumber(std::isnan(v) ? v : std::round(v * 100.0) / 100.0); };
    {
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
        if (r.lossless.asked) {
            // Steps of 20 log10(2^(1/4)) dB; the offset is the gain applied less the gain planned.
            QJsonObject lossless{{QStringLiteral("applied"), r.lossless.fallback.isEmpty()}};
            if (!r.lossless.fallback.isEmpty())
                lossless[QStringLiteral("fallback")] = r.lossless.fallback;
            if (r.normalization == QLatin1String("lossless-step") || r.lossless.restored) {
                lossless[QStringLiteral("steps")] = r.lossless.steps;
                lossless[QStringLiteral("step_db")] = 1.505;
            }
            if (r.normalization == QLatin1String("lossless-step")) {
                lossless[QStringLiteral("offset_db")] = rounded(r.lossless.offsetDb);
                lossless[QStringLiteral("gain_fields")] = qint64(r.lossless.fields);
                lossless[QStringLiteral("clamped_fields")] = qint64(r.lossless.clamped);
            }
            o[QStringLiteral("lossless")] = lossless;
        }
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
        if (r.outcome == CliOutcome::Tagged || !std::isnan(r.tagTrackGain)) {
            // Peaks as written, to six places: players multiply by them.
            auto peak = [](double v) { return jsonNumber(std::isnan(v) ? v : std::round(v * 1e6) / 1e6); };
            o[QStringLiteral("tags")] = QJsonObject{{QStringLiteral("track_gain_db"), rounded(r.tagTrackGain)},
                                                    {QStringLiteral("track_peak"), peak(r.tagTrackPeak)},
                                                    {QStringLiteral("album_gain_db"), rounded(r.tagAlbumGain)},
                                                    {QStringLiteral("album_peak"), peak(r.tagAlbumPeak)}};
        }
        o[QStringLiteral("seconds")] = std::round(r.seconds * 1000.0) / 1000.0;
        return o;
    }
}

QByteArray jsonArrayOpen() { return "[\n"; }

QByteArray jsonArrayElement(const CliFileResult &r, bool first)
{
    // As QJsonDocument indents an array's objects, one level in.
    QByteArray text = QJsonDocument(resultObject(r)).toJson(QJsonDocument::Indented);
    text.chop(1);
    text.replace("\n", "\n    ");
    return (first ? QByteArray("    ") : QByteArray(",\n    ")) + text;
}

QByteArray jsonArrayClose(bool empty) { return empty ? QByteArray("]\n") : QByteArray("\n]\n"); }

QByteArray jsonLine(const CliFileResult &r)
{
    return QJsonDocument(resultObject(r)).toJson(QJsonDocument::Compact) + '\n';
}

QByteArray formatJson(const QList<CliFileResult> &results)
{
    QByteArray out = jsonArrayOpen();
    for (qsizetype i = 0; i < results.size(); ++i)
        out += jsonArrayElement(results[i], i == 0);
    return out + jsonArrayClose(results.isEmpty());
}

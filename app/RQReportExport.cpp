#include "app/RQReportExport.h"

#include "app/RQAudioGainRows.h"
#include "app/RQSettingsController.h"
#include "engine/VXGainState.h"
#include "engine/codec/VXFilter.h"

#include <QJsonValue>
#include <QtConcurrent>

#include <cmath>

namespace {

// As --json prints figures: to hundredths, null where there is none.
QJsonValue rounded(double v) { return std::isfinite(v) ? QJsonValue(std::round(v * 100.0) / 100.0) : QJsonValue(); }

double recorded(const QVariantMap &record, const char *key)
{
    bool ok = false;
    const double v = record.value(QLatin1String(key)).toDouble(&ok);
    return ok ? v : NAN;
}

QString resultOf(const VXAudioGain &item, const VXGainResult &gain)
{
    if (item.state() != VXGainFinished)
        return item.state() == VXGainIdle ? QStringLiteral("analyzed") : QStringLiteral("running");
    switch (item.retCode()) {
    case VXGainSucceeded:
        return gain.skipped ? QStringLiteral("skipped")
            : gain.tagged   ? QStringLiteral("tagged")
            : gain.normalization == VXNormalizationName(VXNormalization::OnePass) ? QStringLiteral("one-pass")
                                                                                   : QStringLiteral("ok");
    case VXGainCancelled: return QStringLiteral("cancelled");
    default: return QStringLiteral("failed");
    }
}

} // namespace

RQReportExport::RQReportExport(RQAudioGainRows *rows, const RQSettingsController *settings, QObject *parent)
    : QObject(parent), m_rows(rows), m_settings(settings)
{
    // Figures arrive with analyses and ends of jobs, both dataChanged, and
    // only leave with their rows; progress ticks need no look once some are.
    connect(m_rows, &QAbstractItemModel::dataChanged, this, [this](const QModelIndex &from, const QModelIndex &to) {
        if (!m_available)
            updateAvailable(from.row(), to.row());
    });
    // Rows may come with figures already (measured before being listed).
    connect(m_rows, &QAbstractItemModel::rowsInserted, this, [this](const QModelIndex &, int first, int last) {
        if (!m_available)
            updateAvailable(first, last);
    });
    auto recount = [this] {
        setAvailable(false);
        updateAvailable(0, m_rows->count() - 1);
    };
    connect(m_rows, &QAbstractItemModel::rowsRemoved, this, recount);
    connect(m_rows, &QAbstractItemModel::modelReset, this, recount);
}

QJsonObject RQReportExport::record(const VXAudioGain &item, const RQAudioGainRows &rows)
{
    const RQAudioGainRows::Measured *m = rows.measured(&item);
    const VXGainResult gain = item.gainResult();
    const bool finished = item.state() == VXGainFinished;
    const bool written = finished && item.retCode() == VXGainSucceeded && !gain.skipped && !gain.tagged;
    // Analyze measured the maxima too; a job's first pass did not.
    const QVariantMap pass1 = item.measurement();
    const VXLoudness in = m ? m->input : VXLoudness{};
    const double inputI = in.measured() ? in.integrated : recorded(pass1, "input_i");
    const double outputI = written ? gain.outputI : NAN;
    if (!std::isfinite(inputI) && !std::isfinite(outputI))
        return {};
    QJsonObject o;
    o[QStringLiteral("input")] = item.inputFile();
    o[QStringLiteral("output")] = written ? QJsonValue(item.replaceOriginalFile() ? item.inputFile() : item.outPathFile())
                                          : QJsonValue();
    o[QStringLiteral("result")] = resultOf(item, gain);
    if (finished && !gain.reason.isEmpty())
        o[QStringLiteral("reason")] = gain.reason;
    o[QStringLiteral("target_lufs")] = rounded(item.loudnormValue());
    o[QStringLiteral("input_i")] = rounded(inputI);
    o[QStringLiteral("input_tp")] = rounded(in.measured() ? in.truePeak : recorded(pass1, "input_tp"));
    o[QStringLiteral("input_lra")] = rounded(in.measured() ? in.range : recorded(pass1, "input_lra"));
    o[QStringLiteral("max_short_term")] = rounded(in.maxShortTerm);
    o[QStringLiteral("max_momentary")] = rounded(in.maxMomentary);
    o[QStringLiteral("gain_db")] = rounded(finished ? gain.gainDb : NAN);
    o[QStringLiteral("normalization")] = finished && !gain.normalization.isEmpty() ? QJsonValue(gain.normalization)
                                                                                  : QJsonValue();
    o[QStringLiteral("output_i")] = rounded(outputI);
    o[QStringLiteral("output_tp")] = rounded(written ? gain.outputTp : NAN);
    o[QStringLiteral("output_lra")] = rounded(written ? gain.outputLra : NAN);
    const VXLoudness out = m && written ? m->output : VXLoudness{};
    o[QStringLiteral("output_max_short_term")] = rounded(out.maxShortTerm);
    o[QStringLiteral("output_max_momentary")] = rounded(out.maxMomentary);
    return o;
}

QList<VXReportFile> RQReportExport::files() const
{
    QList<VXReportFile> files;
    for (const VXAudioGainPtr &item : m_rows->items()) {
        VXReportFile f;
        f.record = record(*item, *m_rows);
        if (f.record.isEmpty())
            continue;
        f.limits = VXLimitsFor({}, double(item->loudnormValue()), double(m_settings->settings().truePeakCeiling));
        if (const RQAudioGainRows::Measured *m = m_rows->measured(item.get())) {
            f.inputCurve = m->input.shortTerm;
            if (f.record.value(QLatin1String("output")).isString())
                f.outputCurve = m->output.shortTerm;
        }
        files << f;
    }
    return files;
}

void RQReportExport::exportTo(const QString &path)
{
    if (m_busy)
        return;
    m_busy = true;
    emit busyChanged();
    QtConcurrent::run([path, files = files()] { return VXWriteReport(path, files); })
        .then(this, [this, path](const VXResult<VXReportCounts> &written) {
            m_busy = false;
            emit busyChanged();
            emit finished(path, written.reason(), written.valueOr({}));
        });
}

void RQReportExport::updateAvailable(int first, int last)
{
    for (int row = first; row <= last && !m_available; ++row)
        if (const VXAudioGainPtr item = m_rows->at(row); item && !record(*item, *m_rows).isEmpty())
            setAvailable(true);
}

void RQReportExport::setAvailable(bool available)
{
    if (available != m_available) {
        m_available = available;
        emit availableChanged();
    }
}

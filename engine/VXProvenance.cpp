#include "engine/VXProvenance.h"

#include "engine/VXAnalysis.h"
#include "engine/VXLosslessTag.h"
#include "engine/VXLoudnessScale.h"
#include "engine/VXTagEditor.h"
#include "engine/VXVersion.h"
#include "engine/codec/VXLoudnessMeter.h"

#include <QStringList>

namespace {

// Tags are always measured by the reference meter, whatever pass 1 would use.
bool loudnormMeasures(const VXJobSettings &settings) { return settings.measureWithLoudnorm && !settings.tagsOnly; }

bool knownKind(const QString &kind)
{
    for (const char *k : {"linear", "peak-capped", "limited", "one-pass", kVXProvenanceTags})
        if (kind == QLatin1String(k))
            return true;
    return false;
}

// Within what two decimals can tell apart.
bool near(double recorded, double wanted) { return std::fabs(recorded - wanted) <= 0.01 + 1e-9; }

} // namespace

VXProvenance VXProvenance::forJob(const VXJobSettings &settings, double targetLufs, const QString &kind)
{
    VXProvenance p;
    const bool tags = kind == QLatin1String(kVXProvenanceTags);
    p.targetLufs = targetLufs;
    p.ceilingDbtp = tags ? NAN : double(settings.truePeakCeiling);
    p.kind = kind;
    p.limiter = !tags && settings.limitPeaks;
    p.dualMono = settings.dualMono;
    p.album = settings.treatAsAlbums;
    p.meter = VXMeterIdentity(loudnormMeasures(settings));
    p.version = QString::fromLatin1(kVXProgramVersion);
    return p;
}

QString VXProvenance::format() const
{
    QStringList fields;
    auto add = [&](const char *key, const QString &value) { fields << QLatin1String(key) + QLatin1Char('=') + value; };
    auto number = [&](const char *key, double v) {
        if (!std::isnan(v))
            add(key, QString::number(v, 'f', 2));
    };
    auto flag = [&](const char *key, bool on) { add(key, on ? QStringLiteral("on") : QStringLiteral("off")); };
    number("target", targetLufs);
    number("ceiling", ceilingDbtp);
    add("kind", kind);
    flag("limiter", limiter);
    flag("dual-mono", dualMono);
    flag("album", album);
    add("meter", meter);
    add("version", version);
    number("i", integrated);
    number("tp", truePeak);
    number("lra", range);
    return fields.join(QLatin1Char(';'));
}

std::optional<VXProvenance> VXProvenance::parse(const QString &text)
{
    VXProvenance p;
    for (const QStringView field : QStringView(text).split(QLatin1Char(';'))) {
        const qsizetype eq = field.indexOf(QLatin1Char('='));
        if (eq <= 0)
            continue;
        const QStringView key = field.left(eq).trimmed();
        const QString value = field.mid(eq + 1).trimmed().toString();
        auto number = [&] {
            bool ok = false;
            const double v = value.toDouble(&ok);
            return ok ? v : NAN;
        };
        const bool on = value == QLatin1String("on");
        if (key == QLatin1String("target"))
            p.targetLufs = number();
        else if (key == QLatin1String("ceiling"))
            p.ceilingDbtp = number();
        else if (key == QLatin1String("kind"))
            p.kind = value;
        else if (key == QLatin1String("limiter"))
            p.limiter = on;
        else if (key == QLatin1String("dual-mono"))
            p.dualMono = on;
        else if (key == QLatin1String("album"))
            p.album = on;
        else if (key == QLatin1String("meter"))
            p.meter = value;
        else if (key == QLatin1String("version"))
            p.version = value;
        else if (key == QLatin1String("i"))
            p.integrated = number();
        else if (key == QLatin1String("tp"))
            p.truePeak = number();
        else if (key == QLatin1String("lra"))
            p.range = number();
    }
    if (!std::isfinite(p.targetLufs) || !knownKind(p.kind) || p.meterName().isEmpty())
        return std::nullopt;
    return p;
}

QString VXProvenance::meterName() const { return meter.section(QLatin1Char('/'), 0, 0); }

bool VXProvenance::matches(const VXJobSettings &settings) const
{
    const char *wanted = loudnormMeasures(settings) ? VXMeterLoudnorm : VXMeterEbur128;
    if (meterName() != QLatin1String(wanted) || dualMono != settings.dualMono || album != settings.treatAsAlbums)
        return false;
    const bool tags = kind == QLatin1String(kVXProvenanceTags);
    if (settings.tagsOnly)
        return tags;
    return !tags && limiter == settings.limitPeaks && near(ceilingDbtp, settings.truePeakCeiling)
        && near(targetLufs, VXLoudnessScale::lufsForPosition(settings.targetLoudness));
}

std::optional<VXProvenance> VXReadProvenance(const QString &path)
{
    const VXResult<VXTagEditor> tag = VXTagEditor::open(path, false);
    if (!tag)
        return std::nullopt;
    const QString text = tag->value(QString::fromLatin1(kVXProvenanceKey));
    return text.isEmpty() ? std::nullopt : VXProvenance::parse(text);
}

VXResult<> VXWriteProvenance(const QString &path, const VXProvenance &provenance)
{
    VXResult<VXTagEditor> tag = VXTagEditor::open(path, true);
    if (!tag) {
        // AC-3 is a bare stream with no tag of any kind: there is nowhere to
        // write, and a later run measures such a file as before.
        if (tag.error().code == VXTagEditor::kNoTagContainer)
            return {};
        return tag.error();
    }
    tag->set(QString::fromLatin1(kVXProvenanceKey), provenance.format());
    // Audio coded anew no longer has the gain fields a lossless change
    // recorded: undoing that record would now move the level wrongly.
    if (!provenance.kind.startsWith(QLatin1String("lossless")) && provenance.kind != QLatin1String("tags"))
        tag->remove(QString::fromLatin1(kVXLosslessTag));
    return tag->save();
}

std::optional<VXProvenance> VXProvenanceSkip(const QString &path, const VXJobSettings &settings)
{
    if (!(settings.skipWithin >= 0.0))
        return std::nullopt;  // nothing is skipped: no need to open the file
    std::optional<VXProvenance> made = VXReadProvenance(path);
    if (!made || !made->matches(settings))
        return std::nullopt;
    return made;
}

QVariantMap VXProvenance::measurementRecord() const
{
    VXLoudness level;
    level.integrated = integrated;
    level.truePeak = truePeak;
    level.range = range;
    QVariantMap record = VXMeasurementRecord(level);
    record.remove(QStringLiteral("input_thresh"));
    record.remove(QStringLiteral("target_offset"));
    return record;
}

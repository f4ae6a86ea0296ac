#include "engine/codec/VXFilter.h"

#include "engine/codec/VXCodecConstants.h"
#include "engine/codec/VXFilterPrivate.h"
#include "engine/codec/VXLog.h"

extern "C" {
#include <libavutil/opt.h>
}

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <unistd.h>

struct VXFilter::Private {
    QString name;
    mutable std::mutex lock;
    QMap<QString, QVariant> attributes;
    QString logPath;  // chosen when first asked for, under lock
    std::shared_ptr<VXFilterLogState> log = std::make_shared<VXFilterLogState>();
};

namespace {

// The logs live in a folder of this process's own, mode 0700, so no other
// user can plant a link where a log will be written: the one the program
// names (its private temporary directory, which later runs sweep when this
// one is killed), else a QTemporaryDir, emptied as filters go and removed
// at exit. Chosen only when a log is first asked for, so a worker
// child, whose filters' print-outs travel over its pipe, makes none.
std::mutex logFolderLock;
QString namedLogFolder;

QString freshLogPath()
{
    static std::atomic<quint64> counter{0};
    const QString name = QStringLiteral("filter-%1.log").arg(counter.fetch_add(1) + 1);
    {
        std::lock_guard<std::mutex> guard(logFolderLock);
        if (!namedLogFolder.isEmpty())
            return QDir(namedLogFolder).filePath(name);
    }
    static const QTemporaryDir folder(QDir::tempPath() + QStringLiteral("/evenloud-log-XXXXXX"));
    return QDir(folder.isValid() ? folder.path() : QDir::tempPath()).filePath(name);
}

// Option strings for libav: floats with enough digits to round-trip, bools
// the way loudnorm's boolean options spell them, strings as given.
QByteArray optionString(const QVariant &value)
{
    switch (value.typeId()) {
    case QMetaType::Bool:
        return value.toBool() ? "true" : "false";
    case QMetaType::Float:
        return QByteArray::number(double(value.toFloat()), 'g', 9);
    case QMetaType::Double:
        return QByteArray::number(value.toDouble(), 'g', 17);
    default:
        return value.toString().toUtf8();
    }
}

bool isMeasurement(const QString &key)
{
    return key == QLatin1String(kVXAMeasuredIntegratedLoudness) || key == QLatin1String(kVXAMeasuredTruePeak)
        || key == QLatin1String(kVXAMeasuredLoudnessRange) || key == QLatin1String(kVXAMeasuredThresh)
        || key == QLatin1String(kVXAGainOffset);
}

bool isFiniteNumber(const QByteArray &text)
{
    char *end = nullptr;
    const double v = std::strtod(text.constData(), &end);
    return end != text.constData() && std::isfinite(v);
}

} // namespace

VXFilter::VXFilter(const QString &name) : d(std::make_unique<Private>())
{
    d->name = name;
}

VXFilter::~VXFilter()
{
    d->log->cancelRedirect();
    if (!d->logPath.isEmpty())
        QFile::remove(d->logPath);
}

void VXFilter::setLogFolder(const QString &folder)
{
    std::lock_guard<std::mutex> guard(logFolderLock);
    namedLogFolder = folder;
}

std::shared_ptr<VXFilter> VXFilter::filterWithName(const QString &name)
{
    if (!avfilter_get_by_name(name.toUtf8().constData()))
        return nullptr;
    vx::installLogRouting();
    return std::shared_ptr<VXFilter>(new VXFilter(name));
}

QString VXFilter::name() const { return d->name; }

void VXFilter::setValue(const QVariant &value, const QString &attribute)
{
    std::lock_guard<std::mutex> guard(d->lock);
    if (value.isNull())
        d->attributes.remove(attribute);
    else
        d->attributes.insert(attribute, value);
}

QVariant VXFilter::valueForAttribute(const QString &attribute) const
{
    std::lock_guard<std::mutex> guard(d->lock);
    return d->attributes.value(attribute);
}

QMap<QString, QVariant> VXFilter::attributes() const
{
    std::lock_guard<std::mutex> guard(d->lock);
    return d->attributes;
}

QString VXFilter::logFile() const
{
    std::lock_guard<std::mutex> guard(d->lock);
    if (d->logPath.isEmpty())
        d->logPath = freshLogPath();
    return d->logPath;
}

void VXFilter::redirectStdErrToFile(const QString &path)
{
    if (!d->log->redirect(path))
        VXLog(QStringLiteral("Cannot open the filter log %1").arg(path));
}

void VXFilter::cancelRedirectStdErr() { d->log->cancelRedirect(); }

std::shared_ptr<VXFilterLogState> VXFilterAccess::logState(const VXFilter &filter) { return filter.d->log; }

QByteArray VXFilterAccess::optionText(const QVariant &value) { return optionString(value); }

namespace {

double attributeNumber(const QMap<QString, QVariant> &attributes, const char *key, double fallback)
{
    const auto it = attributes.find(QLatin1String(key));
    if (it == attributes.end())
        return fallback;
    char *end = nullptr;
    const QByteArray text = optionString(*it);
    const double v = std::strtod(text.constData(), &end);
    return end != text.constData() ? v : std::numeric_limits<double>::quiet_NaN();
}

bool attributeTrue(const QMap<QString, QVariant> &attributes, const char *key)
{
    const QByteArray text = optionString(attributes.value(QLatin1String(key)));
    return text == "true" || text == "1";
}

std::optional<VXGainPlan> planFor(const QMap<QString, QVariant> &attributes)
{
    if (!attributeTrue(attributes, kVXALinearGain))
        return std::nullopt;
    const double measured = attributeNumber(attributes, kVXAMeasuredIntegratedLoudness, NAN);
    if (!std::isfinite(measured))
        return std::nullopt;
    const double target = attributeNumber(attributes, kVXAIntegratedLoudnessTarget, -24.0);
    const double ceiling = attributeNumber(attributes, kVXATruePeakTarget, VXDefaultTruePeakTarget);
    const double peak = attributeNumber(attributes, kVXAMeasuredTruePeak, NAN);
    VXGainPlan plan{target - measured, VXNormalization::Linear, target};
    if (std::isfinite(peak) && peak + plan.gainDb > ceiling + 1e-9) {
        if (attributeTrue(attributes, kVXALimitPeaks)) {
            plan.kind = VXNormalization::Limited;
        } else {
            plan.kind = VXNormalization::PeakCapped;
            plan.gainDb = ceiling - peak;
            plan.expectedLoudness = measured + plan.gainDb;
        }
    }
    return plan;
}

using Instance = VXResult<AVFilterContext *>;

Instance createLinked(AVFilterGraph *graph, AVFilterContext *upstream, const char *filter,
                      const QByteArray &instanceName, const QByteArray &args)
{
    AVFilterContext *ctx = nullptr;
    int err = avfilter_graph_create_filter(&ctx, avfilter_get_by_name(filter), instanceName.constData(),
                                           args.constData(), nullptr, graph);
    if (err >= 0)
        err = avfilter_link(upstream, 0, ctx, 0);
    if (err < 0)
        return VXError::because(QStringLiteral("%1: %2").arg(QLatin1String(filter), vx::errorString(err)));
    return ctx;
}

// One gain at the input's own rate: loudnorm's linear mode without its round
// trip through 192 kHz. Limited mode then oversamples to about 192 kHz, so
// the limiter sees the peaks between samples, and holds them under the
// ceiling with look-ahead; the graph's resampler brings the rate back.
Instance linearChain(const VXGainPlan &plan, double ceiling, AVFilterGraph *graph, AVFilterContext *upstream,
                     int sampleRate, bool highPrecision, const QByteArray &name)
{
    const QByteArray volume = "volume=" + QByteArray::number(plan.gainDb, 'g', 17) + "dB:precision="
        + (highPrecision ? "double" : "float");
    Instance last = createLinked(graph, upstream, "volume", name, volume);
    if (!last || plan.kind != VXNormalization::Limited)
        return last;
    const int factor = std::max(1, (176400 + sampleRate - 1) / std::max(sampleRate, 1));
    if (factor > 1) {
        const QByteArray up = "out_sample_rate=" + QByteArray::number(sampleRate * factor)
            + ":resampler=soxr:precision=28";
        if (!(last = createLinked(graph, *last, "aresample", name + "-up", up)))
            return last;
    }
    // A little under the ceiling: the way back to the file's rate may add a
    // few hundredths of a dB between samples.
    const double limit = std::pow(10.0, (ceiling - 0.2) / 20.0);
    const QByteArray limiter = "limit=" + QByteArray::number(std::max(limit, 0.0625), 'g', 9)
        + ":attack=5:release=80:level=false:latency=true";
    return createLinked(graph, *last, "alimiter", name + "-limit", limiter);
}

} // namespace

std::optional<VXGainPlan> VXFilter::linearPlan() const { return planFor(attributes()); }

bool VXFilterAccess::measuresOnly(const VXFilter &filter)
{
    const QMap<QString, QVariant> attributes = filter.attributes();
    return filter.name() == QLatin1String(VXALoudnormName)
        && optionString(attributes.value(QLatin1String(kVXPrintFormat))) == VXPrintFormatJSON
        && optionString(attributes.value(QLatin1String(kVXAMeter), QString::fromLatin1(VXMeterEbur128)))
        != VXMeterLoudnorm;
}

int VXFilterAccess::measureFlags(const VXFilter &filter)
{
    return VXMeasureTruePeak
        | (attributeTrue(filter.attributes(), kVXADualMono) ? int(VXMeasureDualMono) : 0);
}

QByteArray VXFilter::measurementRecord(const VXLoudness &input) const
{
    // The figures a linear second pass would reach, planned as pass 2 will
    // plan them; a limited plan reaches the target with its peaks at the
    // ceiling. loudnorm prints "-inf" for silence, and so does this.
    QMap<QString, QVariant> attributes = this->attributes();
    attributes.insert(QLatin1String(kVXALinearGain), true);
    attributes.insert(QLatin1String(kVXAMeasuredIntegratedLoudness), input.integrated);
    attributes.insert(QLatin1String(kVXAMeasuredTruePeak), input.truePeak);
    const std::optional<VXGainPlan> plan = planFor(attributes);
    const double target = attributeNumber(attributes, kVXAIntegratedLoudnessTarget, -24.0);
    const double ceiling = attributeNumber(attributes, kVXATruePeakTarget, VXDefaultTruePeakTarget);
    const double gain = plan ? plan->gainDb : 0.0;
    const double outputI = plan ? plan->expectedLoudness : input.integrated;
    const double outputTp = plan && plan->kind == VXNormalization::Limited ? std::min(ceiling, input.truePeak + gain)
                                                                         : input.truePeak + gain;
    auto number = [](double v) {
        return std::isnan(v) ? QByteArray("nan")
            : std::isinf(v)  ? QByteArray(v < 0 ? "-inf" : "inf")
                             : QByteArray::number(v, 'f', 2);
    };
    const std::pair<const char *, QByteArray> fields[] = {
        {"input_i", number(input.integrated)},
        {"input_tp", number(input.truePeak)},
        {"input_lra", number(input.range)},
        {"input_thresh", number(input.threshold)},
        {"output_i", number(outputI)},
        {"output_tp", number(outputTp)},
        {"output_lra", number(input.range)},
        {"output_thresh", number(input.threshold + gain)},
        {"normalization_type", plan ? VXNormalizationName(plan->kind).toLatin1() : QByteArray("linear")},
        {"target_offset", number(target - outputI)},
    };
    QByteArray record = "\n{\n";
    for (size_t i = 0; i < std::size(fields); ++i)
        record += QByteArray("\t\"") + fields[i].first + "\" : \"" + fields[i].second + '"'
            + (i + 1 < std::size(fields) ? ",\n" : "\n");
    return record + "}\n";
}

QString VXNormalizationName(VXNormalization kind)
{
    switch (kind) {
    case VXNormalization::Linear: return QStringLiteral("linear");
    case VXNormalization::PeakCapped: return QStringLiteral("peak-capped");
    case VXNormalization::Limited: return QStringLiteral("limited");
    case VXNormalization::OnePass: return QStringLiteral("one-pass");
    }
    return {};
}

VXResult<AVFilterContext *> VXFilterAccess::instantiate(const VXFilter &filter, AVFilterGraph *graph,
                                                        AVFilterContext *upstream, int sampleRate,
                                                        bool highPrecision, const char *instanceName)
{
    const QByteArray name = filter.name().toUtf8();
    const QMap<QString, QVariant> attributes = filter.attributes();

    auto passThrough = [&](const QString &why) {
        VXLog(QStringLiteral("%1: %2; the level is left unchanged").arg(filter.name(), why));
        return createLinked(graph, upstream, "anull", instanceName, {});
    };

    for (auto it = attributes.begin(); it != attributes.end(); ++it) {
        if (isMeasurement(it.key()) && !isFiniteNumber(optionString(it.value())))
            return passThrough(QStringLiteral("%1 is %2").arg(it.key(), it.value().toString()));
    }
    if (name == VXALoudnormName) {
        if (const auto plan = planFor(attributes)) {
            const double ceiling = attributeNumber(attributes, kVXATruePeakTarget, VXDefaultTruePeakTarget);
            return linearChain(*plan, ceiling, graph, upstream, sampleRate, highPrecision, instanceName);
        }
    }

    AVFilterContext *ctx = avfilter_graph_alloc_filter(graph, avfilter_get_by_name(name.constData()), instanceName);
    if (!ctx)
        return VXError::because(QStringLiteral("cannot create filter %1").arg(filter.name()));
    for (auto it = attributes.begin(); it != attributes.end(); ++it) {
        if (it.key() == QLatin1String(kVXALimitPeaks) || it.key() == QLatin1String(kVXAMeter)
            || it.key() == QLatin1String(kVXADualMono))
            continue;
        const int err = av_opt_set(ctx, it.key().toUtf8().constData(), optionString(it.value()).constData(),
                                   AV_OPT_SEARCH_CHILDREN);
        if (err == AVERROR(ERANGE) && isMeasurement(it.key())) {
            avfilter_free(ctx);
            return passThrough(QStringLiteral("%1 %2 is out of range").arg(it.key(), it.value().toString()));
        }
        if (err < 0) {
            avfilter_free(ctx);
            return VXError::because(QStringLiteral("%1=%2: %3").arg(it.key(), it.value().toString(), vx::errorString(err)));
        }
    }
    int err = avfilter_init_str(ctx, nullptr);
    if (err >= 0)
        err = avfilter_link(upstream, 0, ctx, 0);
    if (err < 0)
        return VXError::because(vx::errorString(err));  // the graph owns ctx now and frees it
    return ctx;
}

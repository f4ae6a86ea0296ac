#include "engine/codec/VXFilter.h"

#include "engine/codec/VXCodecConstants.h"
#include "engine/codec/VXFilterPrivate.h"
#include "engine/codec/VXLog.h"

extern "C" {
#include <libavutil/opt.h>
}

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <atomic>
#include <cmath>
#include <cstdlib>

struct VXFilter::Private {
    QString name;
    mutable std::mutex lock;
    QMap<QString, QVariant> attributes;
    QString logPath;
    std::shared_ptr<VXFilterLogState> log = std::make_shared<VXFilterLogState>();
};

namespace {

QString freshLogPath()
{
    static std::atomic<quint64> counter{0};
    return QDir(QDir::tempPath())
        .filePath(QStringLiteral("evenloud-log-%1-%2.log")
                      .arg(QCoreApplication::applicationPid())
                      .arg(counter.fetch_add(1) + 1));
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
    d->logPath = freshLogPath();
}

VXFilter::~VXFilter()
{
    d->log->cancelRedirect();
    QFile::remove(d->logPath);
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

QString VXFilter::logFile() const { return d->logPath; }

void VXFilter::redirectStdErrToFile(const QString &path)
{
    if (!d->log->redirect(path))
        VXLog(QStringLiteral("Cannot open the filter log %1").arg(path));
}

void VXFilter::cancelRedirectStdErr() { d->log->cancelRedirect(); }

std::shared_ptr<VXFilterLogState> VXFilterAccess::logState(const VXFilter &filter) { return filter.d->log; }

AVFilterContext *VXFilterAccess::instantiate(const VXFilter &filter, AVFilterGraph *graph, const char *instanceName,
                                             QString *error)
{
    const QByteArray name = filter.name().toUtf8();
    const QMap<QString, QVariant> attributes = filter.attributes();

    auto passThrough = [&](const QString &why) -> AVFilterContext * {
        VXLog(QStringLiteral("%1: %2; the level is left unchanged").arg(filter.name(), why));
        AVFilterContext *ctx = nullptr;
        const int err = avfilter_graph_create_filter(&ctx, avfilter_get_by_name("anull"), instanceName, nullptr,
                                                     nullptr, graph);
        if (err < 0)
            *error = vx::errorString(err);
        return ctx;
    };

    for (auto it = attributes.begin(); it != attributes.end(); ++it) {
        if (isMeasurement(it.key()) && !isFiniteNumber(optionString(it.value())))
            return passThrough(QStringLiteral("%1 is %2").arg(it.key(), it.value().toString()));
    }

    AVFilterContext *ctx = avfilter_graph_alloc_filter(graph, avfilter_get_by_name(name.constData()), instanceName);
    if (!ctx) {
        *error = QStringLiteral("cannot create filter %1").arg(filter.name());
        return nullptr;
    }
    for (auto it = attributes.begin(); it != attributes.end(); ++it) {
        const int err = av_opt_set(ctx, it.key().toUtf8().constData(), optionString(it.value()).constData(),
                                   AV_OPT_SEARCH_CHILDREN);
        if (err == AVERROR(ERANGE) && isMeasurement(it.key())) {
            avfilter_free(ctx);
            return passThrough(QStringLiteral("%1 %2 is out of range").arg(it.key(), it.value().toString()));
        }
        if (err < 0) {
            *error = QStringLiteral("%1=%2: %3").arg(it.key(), it.value().toString(), vx::errorString(err));
            avfilter_free(ctx);
            return nullptr;
        }
    }
    const int err = avfilter_init_str(ctx, nullptr);
    if (err < 0) {
        *error = vx::errorString(err);
        avfilter_free(ctx);
        return nullptr;
    }
    return ctx;
}

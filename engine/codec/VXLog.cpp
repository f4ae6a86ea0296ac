#include "engine/codec/VXLog.h"

#include <QMutex>
#include <cstdio>

namespace {
QMutex &sinkLock()
{
    static QMutex lock;
    return lock;
}
VXLogSink &currentSink()
{
    static VXLogSink sink;
    return sink;
}
} // namespace

void VXLog(const QString &line)
{
    QMutexLocker locker(&sinkLock());
    if (currentSink()) {
        currentSink()(line);
        return;
    }
    const QByteArray bytes = line.toUtf8() + '\n';
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stderr);
    std::fflush(stderr);
}

VXLogSink VXSetLogSink(VXLogSink sink)
{
    QMutexLocker locker(&sinkLock());
    return std::exchange(currentSink(), std::move(sink));
}

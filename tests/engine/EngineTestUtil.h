#pragma once

#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <QTest>
#include <functional>
#include <mutex>

#include "engine/codec/VXLog.h"
#include "tests/support/Fixtures.h"

namespace enginetest {

using fixtures::makeWav;
using fixtures::waitFor;

// Half an hour of audio, which takes a worker child many seconds to
// measure; made once for every test that needs one.
inline const QString &longInput()
{
    static QTemporaryDir dir;
    static const QString path = fixtures::makeLong(dir.path(), QStringLiteral("long.flac"), 1800);
    return path;
}

// Collects VXLog lines for the lifetime of the object.
class LogCapture {
public:
    LogCapture()
    {
        m_previous = VXSetLogSink([this](const QString &line) {
            std::lock_guard<std::mutex> locker(m_lock);
            m_lines << line;
        });
    }
    ~LogCapture() { VXSetLogSink(m_previous); }
    QStringList lines() const
    {
        std::lock_guard<std::mutex> locker(m_lock);
        return m_lines;
    }

private:
    mutable std::mutex m_lock;
    QStringList m_lines;
    VXLogSink m_previous;
};

} // namespace enginetest

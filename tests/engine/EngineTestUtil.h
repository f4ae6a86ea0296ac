#pragma once

#include <QColor>
#include <QImage>
#include <QString>
#include <QStringList>
#include <QTest>
#include <functional>
#include <mutex>

#include "engine/codec/VXLog.h"
#include "tests/support/Fixtures.h"

namespace enginetest {

// Spins the main thread's event loop (jobs report through it) until pred
// holds; the timeout is generous and only there so a hang fails the test.
inline bool waitFor(const std::function<bool()> &pred, int msecs = 120000)
{
    return QTest::qWaitFor(pred, msecs);
}

using fixtures::makeWav;

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

inline bool isViolet(QRgb px)
{
    return qAlpha(px) == 255 && qAbs(qRed(px) - 123) <= 3 && qAbs(qGreen(px) - 76) <= 3 && qAbs(qBlue(px) - 188) <= 3;
}

inline bool isRingGrey(QRgb px)
{
    return qAlpha(px) > 200 && qAbs(qRed(px) - 132) <= 6 && qAbs(qGreen(px) - 128) <= 6 && qAbs(qBlue(px) - 129) <= 6;
}

} // namespace enginetest

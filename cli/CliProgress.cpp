#include "cli/CliProgress.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>

namespace {

int terminalWidth()
{
    winsize ws {};
    if (ioctl(STDERR_FILENO, TIOCGWINSZ, &ws) == 0 && ws.ws_col >= 40)
        return ws.ws_col;
    return 80;
}

QString clock(qint64 ms)
{
    const qint64 s = ms / 1000;
    return s >= 3600 ? QStringLiteral("%1:%2:%3").arg(s / 3600).arg(s / 60 % 60, 2, 10, QLatin1Char('0')).arg(s % 60, 2, 10, QLatin1Char('0'))
                     : QStringLiteral("%1:%2").arg(s / 60).arg(s % 60, 2, 10, QLatin1Char('0'));
}

} // namespace

CliProgress::CliProgress(bool terminal, qint64 fileCount, QObject *parent)
    : QObject(parent), m_terminal(terminal), m_fileCount(fileCount)
{
    m_clock.start();
    if (m_terminal) {
        m_timer.setInterval(100);
        connect(&m_timer, &QTimer::timeout, this, [this] {
            if (m_dirty)
                redraw();
            // A watch may wait for hours: no redraws while nothing runs.
            else if (m_running.isEmpty())
                m_timer.stop();
        });
        m_timer.start();
    }
}

void CliProgress::changed()
{
    m_dirty = true;
    if (m_terminal && !m_finished && !m_timer.isActive())
        m_timer.start();
}

QString CliProgress::counter(qint64 number) const
{
    return m_fileCount < 0 ? QStringLiteral("[%1]").arg(number) : QStringLiteral("[%1/%2]").arg(number).arg(m_fileCount);
}

CliProgress::~CliProgress()
{
    finish();
}

void CliProgress::fileStarted(int id, const QString &name, quint64 duration)
{
    Q_UNUSED(duration);
    Running r;
    r.number = ++m_started;
    m_running.insert(id, r);
    if (m_terminal)
        changed();
    else
        message(QStringLiteral("%1 start  %2").arg(counter(r.number), name));
}

void CliProgress::fileProgress(int id, int percent)
{
    auto it = m_running.find(id);
    if (it == m_running.end() || it->percent == percent)
        return;
    it->percent = percent;
    changed();
}

void CliProgress::fileEnded(int id, const QString &line, double audioSeconds)
{
    const Running r = m_running.take(id);
    ++m_ended;
    m_audioSeconds += audioSeconds;
    changed();
    message(QStringLiteral("%1 %2").arg(counter(r.number), line));
}

void CliProgress::message(const QString &line)
{
    writeLocked(line.toLocal8Bit() + '\n');
}

void CliProgress::finish()
{
    m_timer.stop();
    std::lock_guard lock(m_termLock);
    if (m_finished)
        return;
    m_finished = true;
    if (m_frameLines > 0) {
        const QByteArray erase = "\x1b[" + QByteArray::number(m_frameLines) + "A\x1b[J";
        [[maybe_unused]] const ssize_t n = ::write(STDERR_FILENO, erase.constData(), size_t(erase.size()));
    }
    m_frame.clear();
    m_frameLines = 0;
}

void CliProgress::redraw()
{
    m_dirty = false;
    const QByteArray next = frame();
    std::lock_guard lock(m_termLock);
    if (m_finished)
        return;
    QByteArray out;
    if (m_frameLines > 0)
        out += "\x1b[" + QByteArray::number(m_frameLines) + "A\x1b[J";
    out += next;
    m_frame = next;
    m_frameLines = int(next.count('\n'));
    [[maybe_unused]] const ssize_t n = ::write(STDERR_FILENO, out.constData(), size_t(out.size()));
}

QByteArray CliProgress::frame() const
{
    const int width = terminalWidth() - 1;
    const qint64 elapsed = m_clock.elapsed();
    if (m_fileCount < 0) {
        // Watching: no end to count down to.
        QString line = QStringLiteral(" %1 done · %2 running · watching %3")
                           .arg(m_ended)
                           .arg(m_running.size())
                           .arg(m_watched);
        if (line.size() > width)
            line.truncate(width);
        return (line + QLatin1Char('\n')).toLocal8Bit();
    }
    double done = double(m_ended);
    for (const Running &r : m_running)
        done += r.percent / 100.0;
    const double fraction = m_fileCount > 0 ? std::clamp(done / double(m_fileCount), 0.0, 1.0) : 1.0;
    const double seconds = elapsed / 1000.0;
    QStringList parts{QStringLiteral("%1/%2 done").arg(m_ended).arg(m_fileCount),
                      QStringLiteral("%1 left").arg(m_fileCount - m_ended)};
    // A pace from one file or the first second would mislead.
    if (m_ended > 0 && seconds >= 1.0) {
        const double perSecond = m_ended / seconds;
        parts << QStringLiteral("%1 files/s").arg(perSecond, 0, 'f', perSecond < 10 ? 1 : 0);
        if (m_audioSeconds > 0)
            parts << QStringLiteral("%1x real time").arg(m_audioSeconds / seconds, 0, 'f', 0);
        parts << QStringLiteral("ETA %1").arg(clock(qint64((double(m_fileCount) - done) / (done / seconds) * 1000.0)));
    }
    parts << clock(elapsed);
    QString status = parts.join(QStringLiteral(" · "));
    const int barWidth = std::clamp(width - int(status.size()) - 11, 0, 30);
    QString line = QStringLiteral(" %1%").arg(int(fraction * 100.0), 3);
    if (barWidth >= 10) {
        const int filled = int(fraction * barWidth + 0.5);
        line += QStringLiteral(" [%1%2]").arg(QString(filled, QLatin1Char('#')), QString(barWidth - filled, QLatin1Char('-')));
    }
    line += QStringLiteral("  ") + status;
    if (line.size() > width)
        line.truncate(width);
    return (line + QLatin1Char('\n')).toLocal8Bit();
}

void CliProgress::writeLocked(const QByteArray &text)
{
    std::lock_guard lock(m_termLock);
    QByteArray out;
    // Lift the bars, print the line where they stood, put them back below it.
    if (m_frameLines > 0)
        out += "\x1b[" + QByteArray::number(m_frameLines) + "A\x1b[J";
    out += text;
    out += m_frame;
    [[maybe_unused]] const ssize_t n = ::write(STDERR_FILENO, out.constData(), size_t(out.size()));
}

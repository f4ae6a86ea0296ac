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

// "label [#####-----] 42%" fitted into width columns.
QString barLine(QString label, double fraction, const QString &tail, int width)
{
    fraction = std::clamp(fraction, 0.0, 1.0);
    const int labelWidth = std::max(12, width / 3);
    if (label.size() > labelWidth)
        label = QStringLiteral("…") + label.right(labelWidth - 1);
    const QString pct = QStringLiteral("%1%").arg(int(fraction * 100.0), 3);
    // The tail's room is kept on every line so the bars line up.
    const int barWidth = std::max(10, width - labelWidth - int(pct.size()) - 8 - 7);
    const int filled = int(fraction * barWidth + 0.5);
    return QStringLiteral(" %1 [%2%3] %4 %5")
        .arg(label.leftJustified(labelWidth), QString(filled, QLatin1Char('#')),
             QString(barWidth - filled, QLatin1Char('-')), pct, tail);
}

} // namespace

CliProgress::CliProgress(bool terminal, int fileCount, quint64 totalDuration, QObject *parent)
    : QObject(parent), m_terminal(terminal), m_fileCount(fileCount), m_totalDuration(totalDuration)
{
    m_clock.start();
    if (m_terminal) {
        m_timer.setInterval(100);
        connect(&m_timer, &QTimer::timeout, this, [this] {
            if (m_dirty)
                redraw();
        });
        m_timer.start();
    }
}

CliProgress::~CliProgress()
{
    finish();
}

void CliProgress::fileStarted(int id, const QString &name, quint64 duration)
{
    Running r;
    r.name = name;
    r.duration = duration;
    r.number = ++m_started;
    m_running.insert(id, r);
    if (m_terminal)
        m_dirty = true;
    else
        message(QStringLiteral("[%1/%2] start  %3").arg(r.number).arg(m_fileCount).arg(name));
}

void CliProgress::fileProgress(int id, int percent)
{
    auto it = m_running.find(id);
    if (it == m_running.end() || it->percent == percent)
        return;
    it->percent = percent;
    m_dirty = true;
}

void CliProgress::fileEnded(int id, const QString &line)
{
    const Running r = m_running.take(id);
    ++m_ended;
    m_doneDuration += r.duration;
    m_dirty = true;
    message(QStringLiteral("[%1/%2] %3").arg(r.number).arg(m_fileCount).arg(line));
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
    QString text;
    double done = double(m_doneDuration);
    for (const Running &r : m_running) {
        text += barLine(r.name, r.percent / 100.0, QString(), width) + QLatin1Char('\n');
        done += double(r.duration) * r.percent / 100.0;
    }
    const double overall = m_totalDuration > 0 ? done / double(m_totalDuration)
                                               : (m_fileCount > 0 ? double(m_ended) / m_fileCount : 1.0);
    const QString label = QStringLiteral("all %1/%2").arg(m_ended).arg(m_fileCount);
    text += barLine(label, overall, clock(m_clock.elapsed()), width) + QLatin1Char('\n');
    return text.toLocal8Bit();
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

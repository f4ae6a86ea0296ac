// The process's one libav log callback. Messages of registered filter
// instances go to their filter's sink; errors of everything else go to VXLog,
// with repeats collapsed and floods capped; the rest of libav's chatter is
// dropped. File descriptor 2 is never touched: the CLI draws progress there.

#include "engine/codec/VXFilterPrivate.h"
#include "engine/codec/VXLog.h"

extern "C" {
#include <libavutil/log.h>
}

#include <QFile>
#include <fcntl.h>
#include <unistd.h>
#include <chrono>
#include <cstdarg>
#include <unordered_map>
#include <vector>

namespace {

std::mutex registryLock;
std::unordered_map<const void *, std::shared_ptr<VXFilterLogState>> registry;

// Error lines from a corrupt file can come by the thousand. libav's own
// AV_LOG_SKIP_REPEATED is applied only inside its default callback, which
// writes to standard error; a callback of our own has to collapse repeats
// itself, and that flag never caps a flood of differing lines anyway.
class ErrorGate {
public:
    void log(const QString &line)
    {
        std::lock_guard<std::mutex> guard(m_lock);
        if (line == m_last) {
            ++m_repeats;
            return;
        }
        flushRepeats();
        m_last = line;
        const auto now = std::chrono::steady_clock::now();
        if (now - m_windowStart > std::chrono::seconds(10)) {
            if (m_suppressed > 0)
                VXLog(QStringLiteral("FFmpeg: %1 more error lines suppressed").arg(m_suppressed));
            m_windowStart = now;
            m_inWindow = 0;
            m_suppressed = 0;
        }
        if (++m_inWindow > kMaxPerWindow) {
            ++m_suppressed;
            return;
        }
        VXLog(QStringLiteral("FFmpeg: ") + line);
    }

private:
    void flushRepeats()
    {
        if (m_repeats > 0 && m_inWindow <= kMaxPerWindow)
            VXLog(QStringLiteral("FFmpeg: last message repeated %1 times").arg(m_repeats));
        m_repeats = 0;
    }

    static constexpr int kMaxPerWindow = 20;
    std::mutex m_lock;
    QString m_last;
    int m_repeats = 0;
    std::chrono::steady_clock::time_point m_windowStart;
    int m_inWindow = 0;
    int m_suppressed = 0;
};

ErrorGate errorGate;

// The formatted message; heap only for the rare line over 1 KB.
std::string formatLine(void *avcl, int level, const char *fmt, va_list vl, bool prefix)
{
    char local[1024];
    int printPrefix = prefix ? 1 : 0;
    va_list copy;
    va_copy(copy, vl);
    const int needed = av_log_format_line2(avcl, level, fmt, copy, local, sizeof local, &printPrefix);
    va_end(copy);
    if (needed < 0)
        return {};
    if (size_t(needed) < sizeof local)
        return std::string(local, size_t(needed));
    std::vector<char> big(size_t(needed) + 1);
    printPrefix = prefix ? 1 : 0;
    av_log_format_line2(avcl, level, fmt, vl, big.data(), int(big.size()), &printPrefix);
    return std::string(big.data(), size_t(needed));
}

void routeLog(void *avcl, int level, const char *fmt, va_list vl)
{
    // Decoders print debug lines by the thousand; the record a filter
    // prints is at info level. Nothing below that is looked up at all, and
    // no lock is taken for it. (Not av_log_get_level(): the record must
    // reach its filter whatever level the rest of libav is told to log at.)
    if ((level & 0xff) > AV_LOG_INFO)
        return;
    std::shared_ptr<VXFilterLogState> state;
    if (avcl) {
        std::lock_guard<std::mutex> guard(registryLock);
        const auto it = registry.find(avcl);
        if (it != registry.end())
            state = it->second;
    }
    if (state) {
        const std::string line = formatLine(avcl, level, fmt, vl, false);
        state->append(line.data(), line.size());
        return;
    }
    if (level > AV_LOG_ERROR)
        return;
    const QString line = QString::fromUtf8(formatLine(avcl, level, fmt, vl, true)).trimmed();
    if (!line.isEmpty())
        errorGate.log(line);
}

} // namespace

namespace vx {

void installLogRouting()
{
    static std::once_flag once;
    std::call_once(once, [] { av_log_set_callback(routeLog); });
}

void registerLogContext(const void *ctx, std::shared_ptr<VXFilterLogState> state)
{
    std::lock_guard<std::mutex> guard(registryLock);
    registry[ctx] = std::move(state);
}

void unregisterLogContext(const void *ctx, const VXFilterLogState *state)
{
    std::lock_guard<std::mutex> guard(registryLock);
    const auto it = registry.find(ctx);
    if (it != registry.end() && it->second.get() == state)
        registry.erase(it);
}

} // namespace vx

void VXFilterLogState::append(const char *data, size_t size)
{
    std::lock_guard<std::mutex> guard(lock);
    if (sink) {
        std::fwrite(data, 1, size, sink);
        return;
    }
    // The record comes last; on overflow keep the newest messages.
    constexpr qsizetype kMaxPending = 256 * 1024;
    pending.append(data, qsizetype(size));
    if (pending.size() > kMaxPending)
        pending.remove(0, pending.size() - kMaxPending);
}

bool VXFilterLogState::redirect(const QString &path)
{
    std::lock_guard<std::mutex> guard(lock);
    if (sink)
        std::fclose(sink);
    // A link at the path is never followed, whoever put it there.
    const int fd = ::open(QFile::encodeName(path).constData(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC,
                          0600);
    sink = fd >= 0 ? ::fdopen(fd, "wb") : nullptr;
    if (!sink) {
        if (fd >= 0)
            ::close(fd);
        return false;
    }
    std::fwrite(pending.constData(), 1, size_t(pending.size()), sink);
    pending.clear();
    return true;
}

void VXFilterLogState::cancelRedirect()
{
    std::lock_guard<std::mutex> guard(lock);
    if (sink) {
        std::fclose(sink);
        sink = nullptr;
    }
}

void VXFilterLogState::clearPending()
{
    std::lock_guard<std::mutex> guard(lock);
    pending.clear();
}

QByteArray VXFilterLogState::takePending()
{
    std::lock_guard<std::mutex> guard(lock);
    return std::exchange(pending, {});
}

VXFilterLogState::~VXFilterLogState()
{
    if (sink)
        std::fclose(sink);
}

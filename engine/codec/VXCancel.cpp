#include "engine/codec/VXCancel.h"

#include <utility>

void VXCancel::cancel()
{
    // The flag before the lock: onCancel, which reads it under the lock,
    // either sees it and stops its work itself, or has installed its
    // stopper by the time the loop below runs.
    m_cancelled.store(true);
    std::lock_guard<std::mutex> guard(m_lock);
    for (const auto &stop : m_stoppers)
        stop();
}

VXCancel::Stopper VXCancel::onCancel(std::function<void()> stop) const
{
    std::lock_guard<std::mutex> guard(m_lock);
    if (m_cancelled.load()) {
        stop();
        return {};
    }
    return Stopper(this, m_stoppers.insert(m_stoppers.end(), std::move(stop)));
}

VXCancel::Stopper VXCancel::onCancel(const VXCancel *cancel, std::function<void()> stop)
{
    return cancel ? cancel->onCancel(std::move(stop)) : Stopper();
}

VXCancel::Stopper::Stopper(Stopper &&other) noexcept
    : m_cancel(std::exchange(other.m_cancel, nullptr)), m_it(other.m_it)
{
}

VXCancel::Stopper &VXCancel::Stopper::operator=(Stopper &&other) noexcept
{
    if (this != &other) {
        release();
        m_cancel = std::exchange(other.m_cancel, nullptr);
        m_it = other.m_it;
    }
    return *this;
}

VXCancel::Stopper::~Stopper() { release(); }

void VXCancel::Stopper::release()
{
    if (!m_cancel)
        return;
    std::lock_guard<std::mutex> guard(m_cancel->m_lock);
    m_cancel->m_stoppers.erase(m_it);
    m_cancel = nullptr;
}

VXError VXCancelledError()
{
    VXError e = VXError::because(QStringLiteral("cancelled"));
    e.domain = QStringLiteral("VXCancel");
    return e;
}

bool VXIsCancelled(const VXError &error) { return error.domain == QLatin1String("VXCancel"); }

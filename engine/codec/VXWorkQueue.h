#pragma once

// The bounded hand-over between the decoding and the encoding thread: audio
// frames to encode, or packets of copied streams to mux as they are.

#include "engine/codec/VXLibav.h"

#include <condition_variable>
#include <deque>
#include <mutex>

namespace vx {

struct WorkItem {
    FramePtr frame;
    int lane = 0;  // the frame's audio stream
    PacketPtr packet;
};

class WorkQueue {
public:
    explicit WorkQueue(size_t capacity) : m_capacity(capacity) {}

    // Blocks while full; false once the queue was aborted.
    bool push(WorkItem item)
    {
        std::unique_lock<std::mutex> lock(m_lock);
        m_notFull.wait(lock, [&] { return m_aborted || m_items.size() < m_capacity; });
        if (m_aborted)
            return false;
        m_items.push_back(std::move(item));
        m_notEmpty.notify_one();
        return true;
    }

    // Blocks while empty; false at the end (closed and drained) or on abort.
    bool pop(WorkItem *item)
    {
        std::unique_lock<std::mutex> lock(m_lock);
        m_notEmpty.wait(lock, [&] { return m_aborted || m_closed || !m_items.empty(); });
        if (m_aborted || m_items.empty())
            return false;
        *item = std::move(m_items.front());
        m_items.pop_front();
        m_notFull.notify_one();
        return true;
    }

    // The producer is done; the consumer drains what is left.
    void close()
    {
        std::lock_guard<std::mutex> lock(m_lock);
        m_closed = true;
        m_notEmpty.notify_all();
    }

    // Both sides stop waiting at once; what is queued is dropped.
    void abort()
    {
        std::lock_guard<std::mutex> lock(m_lock);
        m_aborted = true;
        m_items.clear();
        m_notEmpty.notify_all();
        m_notFull.notify_all();
    }

private:
    const size_t m_capacity;
    std::mutex m_lock;
    std::condition_variable m_notEmpty;
    std::condition_variable m_notFull;
    std::deque<WorkItem> m_items;
    bool m_closed = false;
    bool m_aborted = false;
};

} // namespace vx

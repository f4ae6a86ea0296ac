#pragma once

// Whole reads and writes at an offset: pread and pwrite may move fewer bytes
// than asked, or be interrupted by a signal.

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <unistd.h>

namespace vx {

namespace detail {
template <typename Transfer, typename Byte>
bool wholeAt(Transfer transfer, int fd, int64_t offset, Byte *p, size_t size)
{
    while (size > 0) {
        const ssize_t n = transfer(fd, p, size, off_t(offset));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        p += n, offset += n, size -= size_t(n);
    }
    return true;
}
} // namespace detail

inline bool readAt(int fd, int64_t offset, void *buffer, size_t size)
{
    return detail::wholeAt(::pread, fd, offset, static_cast<uint8_t *>(buffer), size);
}

inline bool writeAt(int fd, int64_t offset, const void *buffer, size_t size)
{
    return detail::wholeAt(::pwrite, fd, offset, static_cast<const uint8_t *>(buffer), size);
}

} // namespace vx

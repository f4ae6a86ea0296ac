#include "engine/codec/VXOggOpus.h"

#include "engine/codec/VXFileAt.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace vx::opus {
namespace {

constexpr int kHeaderBytes = 27;  // "OggS" ... page_segments
constexpr int kCrcAt = 22;
constexpr int kOpusHeadGainAt = 16;

const std::array<uint32_t, 256> &crcTable()
{
    static const std::array<uint32_t, 256> table = [] {
        std::array<uint32_t, 256> t{};
        for (uint32_t i = 0; i < 256; ++i) {
            uint32_t r = i << 24;
            for (int k = 0; k < 8; ++k)
                r = (r & 0x80000000u) ? (r << 1) ^ 0x04C11DB7u : r << 1;
            t[i] = r;
        }
        return t;
    }();
    return table;
}

} // namespace

uint32_t pageCrc(const uint8_t *page, size_t size)
{
    const std::array<uint32_t, 256> &t = crcTable();
    uint32_t c = 0;
    for (size_t i = 0; i < size; ++i) {
        const uint8_t byte = (i >= kCrcAt && i < kCrcAt + 4) ? 0 : page[i];
        c = (c << 8) ^ t[((c >> 24) ^ byte) & 0xFF];
    }
    return c;
}

void setGain(std::vector<uint8_t> &page, const HeadPage &head, int16_t gain)
{
    const uint16_t g = uint16_t(gain);
    page[size_t(head.gainAt)] = uint8_t(g & 0xFF);  // little-endian, as every Ogg header field
    page[size_t(head.gainAt) + 1] = uint8_t(g >> 8);
    const uint32_t c = pageCrc(page.data(), page.size());
    for (int i = 0; i < 4; ++i)
        page[size_t(kCrcAt + i)] = uint8_t(c >> (8 * i));
}

VXResult<std::vector<HeadPage>> findHeads(int fd)
{
    std::vector<HeadPage> heads;
    int64_t offset = 0;
    bool inFirstPages = false;  // the group of first pages a link starts with
    int opusInGroup = 0;
    for (;;) {
        uint8_t header[kHeaderBytes + 255];
        if (!readAt(fd, offset, header, kHeaderBytes))
            break;  // the end of the file
        if (std::memcmp(header, "OggS", 4) != 0 || header[4] != 0)
            return VXError::because(QStringLiteral("not an Ogg page at byte %1").arg(offset));
        const int segments = header[26];
        if (!readAt(fd, offset + kHeaderBytes, header + kHeaderBytes, size_t(segments)))
            return VXError::because(QStringLiteral("the last Ogg page is cut short"));
        int body = 0;
        for (int i = 0; i < segments; ++i)
            body += header[kHeaderBytes + i];
        const int headerSize = kHeaderBytes + segments;
        const bool first = (header[5] & 0x02) != 0;
        if (!first)
            inFirstPages = false;
        else if (!inFirstPages)
            inFirstPages = true, opusInGroup = 0;
        uint8_t start[kOpusHeadGainAt + 2] = {};
        if (first && body >= int(sizeof start) && readAt(fd, offset + headerSize, start, sizeof start)
            && std::memcmp(start, "OpusHead", 8) == 0) {
            // Alone on its page, and whole: its lacing ends within the page.
            if (segments == 0 || header[kHeaderBytes + segments - 1] == 255)
                return VXError::because(QStringLiteral("the OpusHead page is not complete"));
            if (++opusInGroup > 1)
                return VXError::because(QStringLiteral("more than one Opus stream side by side"));
            HeadPage head;
            head.offset = offset;
            head.size = headerSize + body;
            head.gainAt = headerSize + kOpusHeadGainAt;
            head.gain = int16_t(uint16_t(start[kOpusHeadGainAt] | (start[kOpusHeadGainAt + 1] << 8)));
            heads.push_back(head);
        }
        offset += headerSize + body;
    }
    if (heads.empty())
        return VXError::because(QStringLiteral("no Opus stream"));
    return heads;
}

} // namespace vx::opus

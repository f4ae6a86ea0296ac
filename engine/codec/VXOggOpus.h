#pragma once

// The output gain of Opus in Ogg (RFC 7845 5.1): a signed Q7.8 dB field at
// byte 16 of the OpusHead packet, which is alone on the first page of its
// logical stream (RFC 3533), and applied by every conforming decoder.

#include "engine/codec/VXError.h"

#include <cstdint>
#include <vector>

namespace vx::opus {

struct HeadPage {
    int64_t offset = 0;  // of the page in the file
    int size = 0;        // header, segment table and body
    int gainAt = 0;      // the gain field, from the page's start
    int16_t gain = 0;
};

// Every OpusHead page of the file in order: one per chained link. An
// Ogg file with two Opus streams side by side (their first pages in one
// group) is refused, as is anything that does not walk as Ogg pages.
VXResult<std::vector<HeadPage>> findHeads(int fd);

// The page's bytes with gain in place of its current one, the CRC made anew.
void setGain(std::vector<uint8_t> &page, const HeadPage &head, int16_t gain);

// The Ogg page checksum: CRC-32, generator 0x04C11DB7, no reflection,
// computed with the checksum field zeroed.
uint32_t pageCrc(const uint8_t *page, size_t size);

} // namespace vx::opus

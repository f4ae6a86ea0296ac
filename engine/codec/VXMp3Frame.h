#pragma once

// The gain fields of one MPEG audio Layer III frame (ISO/IEC 11172-3 2.4.1,
// 13818-3 2.4.1): each granule and channel has an 8-bit global_gain in the
// side information, which sits at a fixed place after the header, however
// the main data is laid out in the bit reservoir. A step of 1 scales that
// granule's decoded samples by 2^(1/4), 1.505 dB.

#include <cstddef>
#include <cstdint>
#include <optional>

namespace vx::mp3 {

struct Frame {
    int granules = 0;        // 2 for MPEG-1, 1 for MPEG-2 and 2.5 (LSF)
    int channels = 0;
    bool crc = false;        // a CRC-16 follows the header and covers the side information
    int sideInfoBytes = 0;
    int sideInfoOffset = 0;  // 4, or 6 after a CRC
    int length = 0;          // the frame's bytes as the header tells
};

// A Layer III header with a bit rate given (free format has no fixed frame
// length and is not handled); nullopt otherwise.
std::optional<Frame> parseHeader(const uint8_t *data, size_t size);

struct GainField {
    size_t bit = 0;            // from the frame's first byte
    bool carriesAudio = false; // part2_3_length > 0: a granule with no bits decodes to silence whatever its gain
};
// The frame's fields in bitstream order (granule, then channel): up to 4.
int gainFields(const Frame &frame, const uint8_t *data, GainField out[4]);

// The CRC-16 over the header's last two bytes and the side information.
uint16_t crc(const Frame &frame, const uint8_t *data);
bool crcMatches(const Frame &frame, const uint8_t *data);
void writeCrc(const Frame &frame, uint8_t *data);

} // namespace vx::mp3

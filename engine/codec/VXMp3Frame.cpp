#include "engine/codec/VXMp3Frame.h"

#include "engine/codec/VXBits.h"

namespace vx::mp3 {
namespace {

// kbit/s by bitrate_index (1..14), Layer III: MPEG-1, then MPEG-2 and 2.5.
constexpr int kBitrateV1[15] = {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320};
constexpr int kBitrateV2[15] = {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160};
constexpr int kRateV1[3] = {44100, 48000, 32000};

} // namespace

std::optional<Frame> parseHeader(const uint8_t *d, size_t size)
{
    if (size < 4 || d[0] != 0xFF || (d[1] & 0xE0) != 0xE0)
        return std::nullopt;
    const int version = (d[1] >> 3) & 3;  // 0: 2.5, 1: reserved, 2: MPEG-2, 3: MPEG-1
    const int layer = (d[1] >> 1) & 3;    // 1: Layer III
    const int bitrateIndex = d[2] >> 4;
    const int rateIndex = (d[2] >> 2) & 3;
    if (version == 1 || layer != 1 || bitrateIndex == 0 || bitrateIndex == 15 || rateIndex == 3)
        return std::nullopt;
    const bool mpeg1 = version == 3;
    const int rate = kRateV1[rateIndex] >> (mpeg1 ? 0 : version == 2 ? 1 : 2);
    const int kbps = (mpeg1 ? kBitrateV1 : kBitrateV2)[bitrateIndex];
    Frame f;
    f.granules = mpeg1 ? 2 : 1;
    f.channels = (d[3] >> 6) == 3 ? 1 : 2;
    f.crc = (d[1] & 1) == 0;
    f.sideInfoOffset = f.crc ? 6 : 4;
    f.sideInfoBytes = mpeg1 ? (f.channels == 1 ? 17 : 32) : (f.channels == 1 ? 9 : 17);
    const int padding = (d[2] >> 1) & 1;
    f.length = (mpeg1 ? 144 : 72) * kbps * 1000 / rate + padding;
    if (size_t(f.sideInfoOffset + f.sideInfoBytes) > size)
        return std::nullopt;
    return f;
}

int gainFields(const Frame &f, const uint8_t *d, GainField out[4])
{
    // Each granule/channel block: part2_3_length(12) big_values(9)
    // global_gain(8) ...; 59 bits in MPEG-1 after main_data_begin(9),
    // private_bits(5 or 3) and scfsi (4 a channel); 63 bits in LSF after
    // main_data_begin(8) and private_bits(1 or 2).
    const bool mpeg1 = f.granules == 2;
    const size_t start = size_t(f.sideInfoOffset) * 8;
    const size_t head = mpeg1 ? 9 + (f.channels == 1 ? 5 : 3) + 4 * f.channels : 8 + (f.channels == 1 ? 1 : 2);
    const size_t block = mpeg1 ? 59 : 63;
    int n = 0;
    for (int gr = 0; gr < f.granules; ++gr) {
        for (int ch = 0; ch < f.channels; ++ch, ++n) {
            const size_t at = start + head + size_t(n) * block;
            out[n].bit = at + 21;
            out[n].carriesAudio = readBits(d, at, 12) != 0;
        }
    }
    return n;
}

uint16_t crc(const Frame &f, const uint8_t *d)
{
    // CRC-16, generator x^16 + x^15 + x^2 + 1, preset to all ones.
    uint16_t c = 0xFFFF;
    auto feed = [&c](uint8_t byte) {
        for (int i = 7; i >= 0; --i) {
            const bool top = ((c >> 15) & 1) != ((byte >> i) & 1);
            c = uint16_t(c << 1);
            if (top)
                c ^= 0x8005;
        }
    };
    feed(d[2]);
    feed(d[3]);
    for (int i = 0; i < f.sideInfoBytes; ++i)
        feed(d[f.sideInfoOffset + i]);
    return c;
}

bool crcMatches(const Frame &f, const uint8_t *d) { return f.crc && crc(f, d) == uint16_t((d[4] << 8) | d[5]); }

void writeCrc(const Frame &f, uint8_t *d)
{
    const uint16_t c = crc(f, d);
    d[4] = uint8_t(c >> 8);
    d[5] = uint8_t(c);
}

} // namespace vx::mp3

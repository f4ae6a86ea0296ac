#pragma once

// Bit fields of coded audio, most significant bit first, as every MPEG
// bitstream and Ogg's CRC read them. Reading past the end yields zeros and
// marks the reader overrun, so a parser checks once at the end of an element.

#include <cstddef>
#include <cstdint>

namespace vx {

class BitReader {
public:
    BitReader(const uint8_t *data, size_t bytes) : m_data(data), m_bits(bytes * 8) {}

    uint32_t read(int count)
    {
        uint32_t v = 0;
        for (int i = 0; i < count; ++i)
            v = (v << 1) | bit();
        return v;
    }
    uint32_t bit()
    {
        if (m_pos >= m_bits) {
            m_overrun = true;
            ++m_pos;
            return 0;
        }
        const uint32_t b = (m_data[m_pos >> 3] >> (7 - (m_pos & 7))) & 1u;
        ++m_pos;
        return b;
    }
    // The next count bits without taking them (count <= 24).
    uint32_t peek(int count) const
    {
        BitReader copy = *this;
        return copy.read(count);
    }
    void skip(size_t count) { m_pos += count; if (m_pos > m_bits) m_overrun = true; }
    size_t position() const { return m_pos; }
    size_t size() const { return m_bits; }
    bool overrun() const { return m_overrun; }

private:
    const uint8_t *m_data;
    size_t m_bits;
    size_t m_pos = 0;
    bool m_overrun = false;
};

// Reads or writes a field of width bits at bit position pos.
inline uint32_t readBits(const uint8_t *data, size_t pos, int width)
{
    uint32_t v = 0;
    for (int i = 0; i < width; ++i, ++pos)
        v = (v << 1) | ((data[pos >> 3] >> (7 - (pos & 7))) & 1u);
    return v;
}

inline void writeBits(uint8_t *data, size_t pos, int width, uint32_t value)
{
    for (int i = width - 1; i >= 0; --i, ++pos) {
        const uint8_t mask = uint8_t(1u << (7 - (pos & 7)));
        if ((value >> i) & 1u)
            data[pos >> 3] |= mask;
        else
            data[pos >> 3] &= uint8_t(~mask);
    }
}

} // namespace vx

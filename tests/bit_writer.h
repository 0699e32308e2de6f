/// @file
/// Writes headers bit by bit, with the descriptors of ITU-T H.264 and H.265, 7.2.
#ifndef KX_MP4_TESTS_BIT_WRITER_H
#define KX_MP4_TESTS_BIT_WRITER_H

#include <cstddef>
#include <cstdint>
#include <vector>

class BitWriter {
public:
    BitWriter& U(int bits, uint64_t value) {
        while (bits-- > 0) {
            if (m_used == 0) m_bytes.push_back(0);
            const bool bit = bits < 64 && (value >> bits & 1) != 0;
            if (bit) m_bytes.back() = static_cast<uint8_t>(m_bytes.back() | 0x80 >> m_used);
            m_used = (m_used + 1) % 8;
        }
        return *this;
    }
    BitWriter& Ue(uint64_t value) {
        int length = 0;
        while ((value + 1) >> (length + 1) != 0)
            ++length;
        return U(length, 0).U(length + 1, value + 1);
    }
    BitWriter& Se(int64_t value) {
        return Ue(static_cast<uint64_t>(value > 0 ? 2 * value - 1 : -2 * value));
    }

    /// What was written; the rest of the last byte is zero.
    const std::vector<uint8_t>& Bytes() const { return m_bytes; }

    /// A NAL unit whose header was written first: with trailing bits and emulation prevention.
    std::vector<uint8_t> Nal() {
        U(1, 1);
        std::vector<uint8_t> nal;
        int zeros = 0;
        for (const uint8_t byte : m_bytes) {
            const bool prevented = zeros >= 2 && byte <= 3;
            if (prevented) nal.push_back(3);
            zeros = byte != 0 ? 0 : prevented ? 1 : zeros + 1;
            nal.push_back(byte);
        }
        return nal;
    }

private:
    std::vector<uint8_t> m_bytes;
    int m_used = 0;  // bits of the last byte, 0 when it is full
};

#endif  // KX_MP4_TESTS_BIT_WRITER_H

/// @file
/// Reads the bit fields of a NAL unit's syntax structure (ITU-T H.264 and H.265, 7.2 and 9).
#ifndef KX_MP4_BITREADER_H
#define KX_MP4_BITREADER_H

#include <cstddef>
#include <cstdint>

namespace kx_mp4 {

/// Walks through a NAL unit bit by bit, most significant bit first, and leaves out its emulation
/// prevention bytes.
///
/// Whoever reads past the end, or a value that the syntax does not allow, gets zeros from then on
/// and Ok() stays false; so a parser may read on and ask once at its end, as long as
/// no loop of it takes its length from a value without a bound.
class BitReader {
public:
    /// `nal` is borrowed and begins with the NAL unit's header, without start code.
    explicit BitReader(const uint8_t* nal, size_t size) : m_next(nal), m_end(nal + size) {}

    /// u(bits), 0 to 32 bits.
    uint32_t U(int bits) {
        uint64_t value = 0;
        while (bits > 0 && Fill()) {
            const int taken = bits < m_bits ? bits : m_bits;
            m_bits -= taken;
            bits -= taken;
            value = value << taken | (uint64_t{m_byte} >> m_bits & ((uint64_t{1} << taken) - 1));
        }
        return m_ok ? static_cast<uint32_t>(value) : 0;
    }

    /// u(1).
    bool Flag() { return U(1) != 0; }

    /// ue(v), 0 to 2^32 - 2.
    uint32_t Ue() {
        int zeros = 0;
        while (m_ok && !Flag())
            ++zeros;
        if (zeros > 31) m_ok = false;
        if (!m_ok) return 0;
        const uint32_t rest = U(zeros);
        return m_ok ? ((uint32_t{1} << zeros) - 1 + rest) : 0;
    }

    /// ue(v) that the syntax limits to `max`; a greater one is a failure.
    uint32_t Ue(uint32_t max) {
        const uint32_t value = Ue();
        if (value > max) m_ok = false;
        return m_ok ? value : 0;
    }

    /// se(v).
    int32_t Se() {
        const uint32_t code = Ue();
        const auto magnitude = static_cast<int32_t>(code / 2 + code % 2);
        return code % 2 != 0 ? magnitude : -magnitude;
    }

    /// Leaves out `bits` bits.
    void Skip(size_t bits) {
        for (; bits > 32 && m_ok; bits -= 32)
            U(32);
        if (m_ok) U(static_cast<int>(bits));
    }

    /// Whether everything that was read was there and allowed.
    bool Ok() const { return m_ok; }

    /// Bits from here to the end, without emulation prevention bytes and including the trailing
    /// ones; takes time in proportion to them.
    size_t BitsLeft() const {
        BitReader rest = *this;
        auto bits = static_cast<size_t>(rest.m_bits);
        for (rest.m_bits = 0; rest.m_ok && rest.Fill(); rest.m_bits = 0)
            bits += 8;
        return m_ok ? bits : 0;
    }

private:
    // Makes at least one bit available; false at the end.
    bool Fill() {
        if (m_bits > 0) return true;
        if (m_zeros >= 2 && m_next != m_end && *m_next == 3) {
            ++m_next;
            m_zeros = 0;
        }
        if (m_next == m_end || !m_ok) {
            m_ok = false;
            return false;
        }
        m_byte = *m_next++;
        m_zeros = m_byte == 0 ? m_zeros + 1 : 0;
        m_bits = 8;
        return true;
    }

    const uint8_t* m_next;
    const uint8_t* m_end;
    size_t m_zeros = 0;  // zero bytes just before m_next
    int m_bits = 0;      // of m_byte, not yet read
    uint8_t m_byte = 0;
    bool m_ok = true;
};

}  // namespace kx_mp4

#endif  // KX_MP4_BITREADER_H

#include "Workload.h"

#include <random>

const std::vector<uint8_t> kSps = {0x67, 0x42, 0xC0, 0x28, 0xDA, 0x01, 0xE0, 0x08, 0x9F, 0x95};
const std::vector<uint8_t> kPps = {0x68, 0xCE, 0x3C, 0x80};

namespace {

using Random = std::mt19937_64;
using Bytes = std::vector<uint8_t>;

constexpr uint32_t kDistinctAacFrames = 512;
constexpr uint32_t kMinAacBytes = 300;  // about 128 kbit/s
constexpr uint32_t kMaxAacBytes = 382;

uint32_t Between(Random& random, uint32_t low, uint32_t high) {
    return std::uniform_int_distribution<uint32_t>(low, high)(random);
}

void AppendRandom(Bytes& pool, uint32_t size, Random& random) {
    uint64_t bits = 0;
    for (uint32_t i = 0; i < size; ++i, bits >>= 8) {
        if (i % 8 == 0) bits = random();
        pool.push_back(static_cast<uint8_t>(bits));
    }
}

/// A slice NAL unit behind a start code. Its payload is random as that of an encoder is, zeros
/// included, and as an encoder's it never holds 00 00 00 .. 00 00 03 (ITU-T H.264, 7.4.1).
void AppendSlice(Bytes& pool, uint32_t size, bool key, Random& random) {
    constexpr uint32_t kOverhead = 5;  // start code and NAL unit header
    constexpr uint8_t kIdrSlice = 0x65;
    constexpr uint8_t kNonIdrSlice = 0x41;
    pool.insert(pool.end(), {0, 0, 0, 1, key ? kIdrSlice : kNonIdrSlice});
    const size_t start = pool.size();
    AppendRandom(pool, size - kOverhead, random);
    for (size_t i = start + 2; i < pool.size(); ++i)
        if (pool[i - 2] == 0 && pool[i - 1] == 0 && pool[i] <= 3) pool[i] |= 0x10;
    if (pool.back() == 0) pool.back() = 0x80;
}

}  // namespace

Workload::Workload(const Shape& shape) : m_shape(shape) {
    Random random(2024);
    const uint64_t average = (uint64_t{shape.minBytes} + shape.maxBytes) / 2;
    m_pool.reserve(average * (shape.distinct + shape.keyFactor) * 5 / 4);
    for (uint32_t i = 0; i < shape.distinct; ++i) {
        const size_t start = m_pool.size();
        const bool key = i % shape.keyInterval == 0;
        const uint32_t factor = key ? shape.keyFactor : 1;
        const uint32_t size = factor * Between(random, shape.minBytes, shape.maxBytes);
        for (uint32_t slice = 0; slice < shape.slices; ++slice)
            AppendSlice(m_pool, size / shape.slices, key, random);
        m_pictures.push_back({start, static_cast<uint32_t>(m_pool.size() - start)});
    }
    for (uint32_t i = 0; shape.audio && i < kDistinctAacFrames; ++i) {
        const size_t start = m_pool.size();
        AppendRandom(m_pool, Between(random, kMinAacBytes, kMaxAacBytes), random);
        m_pool[start] = 0x21;  // not the syncword of an ADTS header
        m_aac.push_back({start, static_cast<uint32_t>(m_pool.size() - start)});
    }
    CountSamples();
}

void Workload::CountSamples() {
    Cursor cursor(*this);
    for (uint32_t pictures = 0; pictures < m_shape.pictures; ++m_samples) {
        const Sample sample = cursor.Next();
        m_bytes += sample.size;
        if (sample.video) ++pictures;
    }
}

std::vector<Workload::Shape> WorkloadShapes(bool quick) {
    const uint32_t shrink = quick ? 50 : 1;
    return {
        {"4k", "4K pictures of 1.5 to 8 MB", 30, 150 / shrink, 24, 1500000, 8000000, 1, 24, 1,
         false},
        {"1080p", "1080p30 at 8 Mbit/s with AAC", 30, 18000 / shrink, 60, 21000, 41500, 1, 60, 5,
         true},
        {"small", "200-byte pictures at 60 fps with AAC, 10 hours", 60, 2160000 / shrink, 1024, 150,
         250, 1, 64, 1, true},
        {"slices", "1080p30 at 8 Mbit/s in 32 slices with AAC", 30, 18000 / shrink, 60, 21000,
         41500, 32, 60, 5, true},
    };
}

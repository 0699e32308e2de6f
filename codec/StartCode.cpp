#include "StartCode.h"

#include <atomic>
#include <cstddef>
#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#elif defined(__aarch64__)
#include <arm_neon.h>
#endif

namespace kx_mp4 {

// Every search works in two steps. Two zero bytes in a row are rare in coded pictures, so the hot
// loop only asks whether a wide stretch holds any: byte i OR byte i+1 is zero exactly there, and
// the minimum over several vectors tells it for all of them at once. A stretch that holds a pair
// is then searched exactly. The last, incomplete stretch is covered by one that overlaps what was
// already searched, so that nothing beyond the end is ever read.

namespace {

constexpr ptrdiff_t kPrefixBytes = 3;

const uint8_t* FindBytewise(const uint8_t* p, const uint8_t* end) {
    for (; end - p >= kPrefixBytes; ++p) {
        if (p[0] == 0 && p[1] == 0 && p[2] == 1) return p;
    }
    return end;
}

uint64_t LoadWord(const uint8_t* p) {
    uint64_t word = 0;
    std::memcpy(&word, p, sizeof word);
    return word;
}

bool HasZeroByte(uint64_t word) {
    constexpr uint64_t kOnes = 0x0101010101010101U;
    return ((word - kOnes) & ~word & (kOnes << 7)) != 0;
}

const uint8_t* FindWordwise(const uint8_t* p, const uint8_t* end) {
    constexpr ptrdiff_t kStep = sizeof(uint64_t);
    for (; end - p >= kStep + 2; p += kStep) {
        if (!HasZeroByte(LoadWord(p) | LoadWord(p + 1))) continue;
        const uint8_t* found = FindBytewise(p, p + kStep + 2);
        if (found != p + kStep + 2) return found;
    }
    return FindBytewise(p, end);
}

#if defined(__x86_64__)

constexpr ptrdiff_t kSseStep = 16;

__m128i LoadSse(const uint8_t* p) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
}

// Bit i is set when a start code begins at p + i; reads 18 bytes.
unsigned StartCodesSse2(const uint8_t* p) {
    const __m128i pair = _mm_or_si128(LoadSse(p), LoadSse(p + 1));
    const __m128i other = _mm_xor_si128(LoadSse(p + 2), _mm_set1_epi8(1));
    const __m128i hit = _mm_cmpeq_epi8(_mm_or_si128(pair, other), _mm_setzero_si128());
    return static_cast<unsigned>(_mm_movemask_epi8(hit));
}

const uint8_t* FirstSse2(const uint8_t* p, unsigned mask) {
    return p + __builtin_ctz(mask);
}

bool HasZeroPairSse2(const uint8_t* p) {
    __m128i least = _mm_set1_epi8(-1);
    for (ptrdiff_t i = 0; i < 4 * kSseStep; i += kSseStep) {
        least = _mm_min_epu8(least, _mm_or_si128(LoadSse(p + i), LoadSse(p + i + 1)));
    }
    return _mm_movemask_epi8(_mm_cmpeq_epi8(least, _mm_setzero_si128())) != 0;
}

const uint8_t* FindSse2(const uint8_t* p, const uint8_t* end) {
    if (end - p < kSseStep + 2) return FindWordwise(p, end);
    if (const unsigned mask = StartCodesSse2(p)) return FirstSse2(p, mask);
    p += kSseStep;
    while (end - p >= 4 * kSseStep + 2) {
        if (HasZeroPairSse2(p)) {
            for (ptrdiff_t i = 0; i < 4 * kSseStep; i += kSseStep) {
                if (const unsigned mask = StartCodesSse2(p + i)) return FirstSse2(p + i, mask);
            }
        }
        p += 4 * kSseStep;
    }
    for (; end - p >= kSseStep + 2; p += kSseStep) {
        if (const unsigned mask = StartCodesSse2(p)) return FirstSse2(p, mask);
    }
    p = end - (kSseStep + 2);
    const unsigned mask = StartCodesSse2(p);
    return mask != 0 ? FirstSse2(p, mask) : end;
}

constexpr ptrdiff_t kAvxStep = 32;

[[gnu::target("avx2")]] inline __m256i LoadAvx(const uint8_t* p) {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
}

// Bit i is set when a start code begins at p + i; reads 34 bytes.
[[gnu::target("avx2")]] inline unsigned StartCodesAvx2(const uint8_t* p) {
    const __m256i pair = _mm256_or_si256(LoadAvx(p), LoadAvx(p + 1));
    const __m256i other = _mm256_xor_si256(LoadAvx(p + 2), _mm256_set1_epi8(1));
    const __m256i hit = _mm256_cmpeq_epi8(_mm256_or_si256(pair, other), _mm256_setzero_si256());
    return static_cast<unsigned>(_mm256_movemask_epi8(hit));
}

[[gnu::target("avx2")]] inline __m256i ZeroPairsAvx2(const uint8_t* p) {
    return _mm256_or_si256(LoadAvx(p), LoadAvx(p + 1));
}

[[gnu::target("avx2")]] inline bool HasZeroPairAvx2(const uint8_t* p) {
    const __m256i low = _mm256_min_epu8(ZeroPairsAvx2(p), ZeroPairsAvx2(p + kAvxStep));
    const __m256i high =
        _mm256_min_epu8(ZeroPairsAvx2(p + 2 * kAvxStep), ZeroPairsAvx2(p + 3 * kAvxStep));
    const __m256i zero = _mm256_cmpeq_epi8(_mm256_min_epu8(low, high), _mm256_setzero_si256());
    return _mm256_movemask_epi8(zero) != 0;
}

[[gnu::target("avx2")]] const uint8_t* FindAvx2(const uint8_t* p, const uint8_t* end) {
    if (end - p < kAvxStep + 2) return FindSse2(p, end);
    // Delimiters and parameter sets are short: the next start code is often near.
    if (const unsigned mask = StartCodesAvx2(p)) return p + __builtin_ctz(mask);
    p += kAvxStep;
    while (end - p >= 4 * kAvxStep + 2) {
        if (HasZeroPairAvx2(p)) {
            for (ptrdiff_t i = 0; i < 4 * kAvxStep; i += kAvxStep) {
                if (const unsigned mask = StartCodesAvx2(p + i)) {
                    return p + i + __builtin_ctz(mask);
                }
            }
        }
        p += 4 * kAvxStep;
    }
    for (; end - p >= kAvxStep + 2; p += kAvxStep) {
        if (const unsigned mask = StartCodesAvx2(p)) return p + __builtin_ctz(mask);
    }
    p = end - (kAvxStep + 2);
    const unsigned mask = StartCodesAvx2(p);
    return mask != 0 ? p + __builtin_ctz(mask) : end;
}

#elif defined(__aarch64__)

constexpr ptrdiff_t kNeonStep = 16;

// Whether a start code begins within the 16 bytes; reads 18.
bool HasStartCodeNeon(const uint8_t* p) {
    const uint8x16_t other = veorq_u8(vld1q_u8(p + 2), vdupq_n_u8(1));
    const uint8x16_t any = vorrq_u8(vorrq_u8(vld1q_u8(p), vld1q_u8(p + 1)), other);
    return vminvq_u8(any) == 0;
}

bool HasZeroPairNeon(const uint8_t* p) {
    uint8x16_t least = vdupq_n_u8(0xFF);
    for (ptrdiff_t i = 0; i < 4 * kNeonStep; i += kNeonStep) {
        least = vminq_u8(least, vorrq_u8(vld1q_u8(p + i), vld1q_u8(p + i + 1)));
    }
    return vminvq_u8(least) == 0;
}

const uint8_t* FindNeon(const uint8_t* p, const uint8_t* end) {
    if (end - p < kNeonStep + 2) return FindWordwise(p, end);
    while (end - p >= 4 * kNeonStep + 2) {
        if (HasZeroPairNeon(p)) {
            for (ptrdiff_t i = 0; i < 4 * kNeonStep; i += kNeonStep) {
                if (HasStartCodeNeon(p + i)) return FindBytewise(p + i, end);
            }
        }
        p += 4 * kNeonStep;
    }
    for (; end - p >= kNeonStep + 2; p += kNeonStep) {
        if (HasStartCodeNeon(p)) return FindBytewise(p, end);
    }
    return FindBytewise(p, end);
}

#endif

const uint8_t* ChooseAndFind(const uint8_t* begin, const uint8_t* end);

// Constant-initialised, so that a static object of the application may already use it; threads
// that choose at the same time choose the same.
std::atomic<FindStartCodeFn> g_find{ChooseAndFind};

const uint8_t* ChooseAndFind(const uint8_t* begin, const uint8_t* end) {
    const FindStartCodeFn best = StartCodeSearches().front().find;
    g_find.store(best, std::memory_order_relaxed);
    return best(begin, end);
}

}  // namespace

const uint8_t* FindStartCode(const uint8_t* begin, const uint8_t* end) {
    return g_find.load(std::memory_order_relaxed)(begin, end);
}

std::vector<StartCodeSearch> StartCodeSearches() {
    std::vector<StartCodeSearch> searches;
#if defined(__x86_64__)
    if (__builtin_cpu_supports("avx2")) searches.push_back({"avx2", FindAvx2});
    searches.push_back({"sse2", FindSse2});
#elif defined(__aarch64__)
    searches.push_back({"neon", FindNeon});
#endif
    searches.push_back({"words", FindWordwise});
    return searches;
}

}  // namespace kx_mp4

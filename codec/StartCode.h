/// @file
/// Search for the start code prefix of the byte stream format (ITU-T H.264 and H.265, Annex B).
#ifndef KX_MP4_STARTCODE_H
#define KX_MP4_STARTCODE_H

#include <cstdint>
#include <vector>

namespace kx_mp4 {

/// Finds the first 00 00 01 whose three bytes all lie in [begin, end); `end` when there is none.
/// Reads nothing outside [begin, end). Thread-safe.
using FindStartCodeFn = const uint8_t* (*)(const uint8_t* begin, const uint8_t* end);

/// The search with the fastest instructions of this processor, chosen at the first call.
const uint8_t* FindStartCode(const uint8_t* begin, const uint8_t* end);

/// One way to search; all ways give the same answers.
struct StartCodeSearch {
    const char* name;
    FindStartCodeFn find;
};

/// Every way that this processor can run, the fastest first; for tests and benchmarks.
std::vector<StartCodeSearch> StartCodeSearches();

}  // namespace kx_mp4

#endif  // KX_MP4_STARTCODE_H

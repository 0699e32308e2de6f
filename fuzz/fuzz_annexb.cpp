// Every search for start codes finds what a plain loop finds, and the splitter cuts accordingly.
#include <cstdlib>
#include <vector>

#include "StartCode.h"
#include "VideoFrameParser.h"

using kx_mp4::FindStartCodeFn;
using kx_mp4::StartCodeSearch;
using kx_mp4::StartCodeSearches;

namespace {

const uint8_t* FindByLoop(const uint8_t* p, const uint8_t* end) {
    for (; end - p >= 3; ++p) {
        if (p[0] == 0 && p[1] == 0 && p[2] == 1) return p;
    }
    return end;
}

void Require(bool condition) {
    if (!condition) std::abort();
}

void CheckSearch(FindStartCodeFn find, const uint8_t* data, const uint8_t* end) {
    for (const uint8_t* p = data; end - p >= 3; p += 3) {
        const uint8_t* const expected = FindByLoop(p, end);
        Require(find(p, end) == expected);
        p = expected;
        if (p == end) break;
    }
}

void CheckSlices(const uint8_t* data, int size) {
    std::vector<VIDEO_SLICE> expected;
    const uint8_t* head = nullptr;
    for (int i = 0; i < size - 3; ++i) {
        if (data[i] != 0 || data[i + 1] != 0 || data[i + 2] != 1) continue;
        const int end = i > 0 && data[i - 1] == 0 ? i - 1 : i;
        if (head != nullptr) expected.push_back({static_cast<int>(data + end - head), head});
        head = data + i + 3;
    }
    if (head != nullptr) expected.push_back({static_cast<int>(data + size - head), head});

    CVideoFrameParser parser;
    Require(parser.Parse(data, size) == !expected.empty());
    Require(parser.size() == expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        Require(parser[i].pbData == expected[i].pbData && parser[i].cbData == expected[i].cbData);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::vector<StartCodeSearch> searches = StartCodeSearches();
    // Arbitrary bytes seldom hold start codes, so the second round maps them to a small alphabet.
    const std::vector<uint8_t> wide(data, data + size);
    std::vector<uint8_t> narrow(wide);
    for (uint8_t& byte : narrow)
        byte &= 0x83;
    for (const std::vector<uint8_t>& frame : {wide, narrow}) {
        for (const StartCodeSearch& search : searches) {
            CheckSearch(search.find, frame.data(), frame.data() + frame.size());
        }
        CheckSlices(frame.data(), static_cast<int>(frame.size()));
    }
    return 0;
}

#include <gmock/gmock.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <numeric>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "StartCode.h"
#include "VideoFrameParser.h"
#include "system_calls.h"

using kx_mp4::StartCodeSearch;
using kx_mp4::StartCodeSearches;

namespace {

using Bytes = std::vector<uint8_t>;
using Slices = std::vector<std::pair<int, int>>;  // offset, length

// The splitter at its plainest, which every faster one must agree with.
Slices SplitByLoop(const uint8_t* frame, int size) {
    Slices slices;
    int head = -1;
    for (int i = 0; i < size - 3; ++i) {
        if (frame[i] != 0 || frame[i + 1] != 0 || frame[i + 2] != 1) continue;
        const int end = i > 0 && frame[i - 1] == 0 ? i - 1 : i;
        if (head >= 0) slices.emplace_back(head, end - head);
        head = i + 3;
    }
    if (head >= 0) slices.emplace_back(head, size - head);
    return slices;
}

Slices Split(const uint8_t* frame, int size) {
    CVideoFrameParser parser;
    const bool found = parser.Parse(frame, size);
    EXPECT_EQ(found, !parser.empty());
    Slices slices;
    for (const VIDEO_SLICE& slice : parser) {
        slices.emplace_back(static_cast<int>(slice.pbData - frame), slice.cbData);
    }
    return slices;
}

Slices Split(const Bytes& frame) {
    return Split(frame.data(), static_cast<int>(frame.size()));
}

const uint8_t* FindByLoop(const uint8_t* begin, const uint8_t* end) {
    static const Bytes kPrefix{0, 0, 1};
    return std::search(begin, end, kPrefix.begin(), kPrefix.end());
}

// Memory that ends where a page without access begins.
class GuardedBytes {
public:
    GuardedBytes() : m_page(static_cast<size_t>(sysconf(_SC_PAGESIZE))) {
        m_map = static_cast<uint8_t*>(
            mmap(nullptr, 3 * m_page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        if (m_map == MAP_FAILED || mprotect(m_map + m_page, m_page, PROT_READ | PROT_WRITE) != 0) {
            throw std::runtime_error("no guarded memory");
        }
    }
    ~GuardedBytes() { munmap(m_map, 3 * m_page); }
    GuardedBytes(const GuardedBytes&) = delete;
    GuardedBytes& operator=(const GuardedBytes&) = delete;

    uint8_t* AtBack(size_t size) { return m_map + 2 * m_page - size; }

private:
    size_t m_page;
    uint8_t* m_map;
};

// All strings of `length` over {0, 1, 2}.
std::vector<Bytes> AllStrings(size_t length) {
    std::vector<Bytes> strings(1);
    for (size_t i = 0; i < length; ++i) {
        std::vector<Bytes> longer;
        for (const Bytes& head : strings) {
            for (uint8_t last = 0; last < 3; ++last) {
                longer.push_back(head);
                longer.back().push_back(last);
            }
        }
        strings.swap(longer);
    }
    return strings;
}

class EverySearch : public testing::TestWithParam<StartCodeSearch> {
protected:
    // Compares every answer of a walk through [begin, end); the first difference ends the test.
    void CompareWalk(const uint8_t* begin, const uint8_t* end) {
        const uint8_t* expected = nullptr;
        do {
            expected = FindByLoop(begin, end);
            ASSERT_EQ(GetParam().find(begin, end) - begin, expected - begin)
                << "of " << end - begin << " bytes";
            begin = expected + 3;
        } while (expected != end && begin <= end);
    }
};

TEST_P(EverySearch, AgreesWithTheLoopOnAllShortInputs) {
    GuardedBytes memory;
    for (size_t length = 0; length <= 9; ++length) {
        for (const Bytes& text : AllStrings(length)) {
            uint8_t* const at = std::copy_backward(text.begin(), text.end(), memory.AtBack(0));
            CompareWalk(at, at + length);
            if (HasFatalFailure()) return;
        }
    }
}

TEST_P(EverySearch, AgreesWithTheLoopAtEveryPlaceOfAWideInput) {
    GuardedBytes memory;
    const std::vector<Bytes> texts = AllStrings(4);
    for (const size_t size : {17U, 18U, 33U, 34U, 66U, 67U, 130U, 131U, 163U, 200U}) {
        uint8_t* const at = memory.AtBack(size);
        for (size_t n = 0; n < 3 * (size - 3) * texts.size(); ++n) {
            const int fillers[] = {0, 1, 0xFF};
            const Bytes& text = texts[n / 3 % texts.size()];
            std::memset(at, fillers[n % 3], size);
            std::copy(text.begin(), text.end(), at + n / 3 / texts.size());
            CompareWalk(at, at + size);
            if (HasFatalFailure()) return;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(StartCode, EverySearch, testing::ValuesIn(StartCodeSearches()),
                         [](const auto& search) { return std::string(search.param.name); });

TEST(VideoFrameParser, SplitsAsTheLoop) {
    std::vector<Bytes> frames = AllStrings(10);
    std::mt19937 random(11);
    for (unsigned round = 0; round < 3000; ++round) {
        frames.emplace_back(random() % 900);
        for (uint8_t& byte : frames.back())
            byte = static_cast<uint8_t>(random() % (3 + round % 20));
    }
    for (const Bytes& frame : frames) {
        ASSERT_EQ(Split(frame), SplitByLoop(frame.data(), static_cast<int>(frame.size())))
            << testing::PrintToString(frame);
    }
}

TEST(VideoFrameParser, RefusesNoFrameAndForgetsTheOneBefore) {
    CVideoFrameParser parser;
    Split({0, 0, 1, 0x65});  // the first search of a program chooses among several
    for (const size_t units : {1U, 47U, 48U, 49U, 500U}) {  // 48 have room inside
        Bytes frame;
        for (size_t i = 0; i < units; ++i)
            frame.insert(frame.end(), {0, 0, 1, 0x41, static_cast<uint8_t>(i % 200 + 4)});
        const auto size = static_cast<int>(frame.size());
        const FaultInjection count(0, ENOMEM, FaultInjection::Of::kMemory);
        const bool parsed = parser.Parse(frame.data(), size);
        EXPECT_EQ(count.Calls() == 0, units <= 48) << units;
        ASSERT_TRUE(parsed);
        ASSERT_EQ(parser.size(), units);
        for (size_t i = 0; i < units; ++i)
            EXPECT_EQ(parser[i].pbData - frame.data(), static_cast<int64_t>(5 * i + 3));
        EXPECT_FALSE(parser.ParseLengths(nullptr, size, 4));
        EXPECT_FALSE(parser.Parse(nullptr, size));
        EXPECT_TRUE(parser.empty());
        for (const int none : {-1, 0, INT32_MIN}) {
            ASSERT_TRUE(parser.Parse(frame.data(), size));
            EXPECT_FALSE(parser.Parse(frame.data(), none));
            EXPECT_TRUE(parser.empty());
        }
    }
}

// The nal_unit_types that a classifier's question is answered with yes for. `header` turns a type
// into a header byte whose other bits are all set.
template <class Question>
std::vector<int> TypesWith(int types, uint8_t (*header)(int), Question question) {
    std::vector<int> yes;
    for (int type = 0; type < types; ++type) {
        const uint8_t byte = header(type);
        if (question(&byte)) yes.push_back(type);
    }
    return yes;
}

using testing::ElementsAre;

TEST(NalClassifiers, H264) {
    CH264Nal nal;
    const auto header = [](int type) { return static_cast<uint8_t>(0xE0 | type); };
    const auto types = [&](auto question) { return TypesWith(32, header, question); };
    EXPECT_THAT(types([&](auto* p) { return nal.IsKeyFrame(p, 1); }), ElementsAre(5));
    EXPECT_THAT(types([&](auto* p) { return nal.IsRandomAccess(p, 1); }), ElementsAre(5));
    EXPECT_THAT(types([&](auto* p) { return !nal.IsPayload(p, 1); }), ElementsAre(6, 7, 8, 9));
    EXPECT_EQ(types([&](auto* p) { return nal.GetTag(p, 1) == (*p & 0x1F); }).size(), 32U);
}

TEST(NalClassifiers, Hevc) {
    CHevcNal nal;
    const auto header = [](int type) { return static_cast<uint8_t>(0x81 | type << 1); };
    const auto types = [&](auto question) { return TypesWith(64, header, question); };
    std::vector<int> payload(23, 39);
    std::iota(payload.begin(), payload.end() - 1, 0);  // 0 to 21, and 39
    EXPECT_THAT(types([&](auto* p) { return nal.IsKeyFrame(p, 1); }), ElementsAre(19, 20));
    EXPECT_THAT(types([&](auto* p) { return nal.IsRandomAccess(p, 1); }),
                ElementsAre(16, 17, 18, 19, 20, 21));
    EXPECT_EQ(types([&](auto* p) { return nal.IsPayload(p, 1); }), payload);
    EXPECT_EQ(types([&](auto* p) { return nal.GetTag(p, 1) == (*p >> 1 & 0x3F); }).size(), 64U);
}

}  // namespace

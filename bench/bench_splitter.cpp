// Splitting a frame into NAL units: a plain byte loop, memchr and this library's searches.
//
// "Loop" and "Library" cut the same slices. "MemchrSplit" does so too with the C library's memchr
// looking for the 01 of a start code; "MemchrScan" is one memchr for a byte that is not there: what
// it costs to look at every byte once.
#include <benchmark/benchmark.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "StartCode.h"
#include "VideoFrameParser.h"

using kx_mp4::FindStartCodeFn;
using kx_mp4::StartCodeSearch;
using kx_mp4::StartCodeSearches;

namespace {

using Frame = std::vector<uint8_t>;

// One picture in one slice behind an access unit delimiter; coded data looks random, and its
// emulation prevention leaves no start code in it.
Frame MakeFrame(size_t size) {
    Frame frame{0, 0, 0, 1, 0x09, 0xF0, 0, 0, 0, 1, 0x41};
    std::mt19937 random(1);
    while (frame.size() < size) {
        const auto byte = static_cast<uint8_t>(random());
        const size_t n = frame.size();
        if (frame[n - 1] == 0 && frame[n - 2] == 0 && byte <= 3) frame.push_back(3);
        frame.push_back(byte);
    }
    frame.resize(size);
    frame.back() = 0x80;
    return frame;
}

const uint8_t* FindByLoop(const uint8_t* p, const uint8_t* end) {
    for (; end - p >= 3; ++p) {
        if (p[0] == 0 && p[1] == 0 && p[2] == 1) return p;
    }
    return end;
}

const uint8_t* FindByMemchr(const uint8_t* begin, const uint8_t* end) {
    const uint8_t* p = begin + 2;
    while (p < end) {
        p = static_cast<const uint8_t*>(std::memchr(p, 1, static_cast<size_t>(end - p)));
        if (p == nullptr) return end;
        if (p[-1] == 0 && p[-2] == 0) return p - 2;
        ++p;
    }
    return end;
}

void Split(FindStartCodeFn find, const Frame& frame, VIDEO_SLICE_ARRAY& slices) {
    slices.clear();
    const uint8_t* const end = frame.data() + frame.size();
    const uint8_t* head = nullptr;
    for (const uint8_t* p = find(frame.data(), end - 1); p != end - 1; p = find(head, end - 1)) {
        const uint8_t* const stop = head != nullptr && p[-1] == 0 ? p - 1 : p;
        if (head != nullptr) slices.push_back({static_cast<int>(stop - head), head});
        head = p + 3;
    }
    if (head != nullptr) slices.push_back({static_cast<int>(end - head), head});
}

void Count(benchmark::State& state) {
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

void SplitWith(benchmark::State& state, FindStartCodeFn find) {
    const Frame frame = MakeFrame(static_cast<size_t>(state.range(0)));
    VIDEO_SLICE_ARRAY slices;
    while (state.KeepRunning()) {
        Split(find, frame, slices);
        benchmark::DoNotOptimize(slices.data());
    }
    Count(state);
}

void Library(benchmark::State& state) {
    const Frame frame = MakeFrame(static_cast<size_t>(state.range(0)));
    CVideoFrameParser parser;
    while (state.KeepRunning()) {
        benchmark::DoNotOptimize(parser.Parse(frame.data(), static_cast<int>(frame.size())));
    }
    Count(state);
}

void MemchrScan(benchmark::State& state) {
    const Frame frame(static_cast<size_t>(state.range(0)), 0x41);
    while (state.KeepRunning()) {
        benchmark::DoNotOptimize(std::memchr(frame.data(), 1, frame.size()));
    }
    Count(state);
}

void FrameSizes(benchmark::internal::Benchmark* benchmark) {
    benchmark->Arg(200)->Arg(4 << 10)->Arg(30 << 10)->Arg(1800 << 10);
}

const bool kSearchesRegistered = [] {
    for (const StartCodeSearch& search : StartCodeSearches()) {
        const std::string name = std::string("Search/") + search.name;
        benchmark::RegisterBenchmark(name.c_str(), SplitWith, search.find)->Apply(FrameSizes);
    }
    return true;
}();

BENCHMARK_CAPTURE(SplitWith, Loop, FindByLoop)->Apply(FrameSizes);
BENCHMARK_CAPTURE(SplitWith, MemchrSplit, FindByMemchr)->Apply(FrameSizes);
BENCHMARK(MemchrScan)->Apply(FrameSizes);
BENCHMARK(Library)->Apply(FrameSizes);

}  // namespace

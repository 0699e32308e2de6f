// The cutters of kxmux's inputs: whatever the bytes, they end, within the input, with frames or
// with the one kind of exception that says what is wrong.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "AccessUnitCutter.h"
#include "AdtsCutter.h"
#include "AnnexBFeed.h"
#include "ProResCutter.h"

namespace {

using namespace kxmux;

class MemorySource : public ByteSource {
public:
    MemorySource(const uint8_t* data, size_t size, size_t step)
        : m_data(data), m_size(size), m_step(step) {}
    size_t Read(uint8_t* to, size_t size) override {
        const size_t count = std::min({size, m_step, m_size});
        std::copy_n(m_data, count, to);
        m_data += count;
        m_size -= count;
        return count;
    }

private:
    const uint8_t* m_data;
    size_t m_size;
    size_t m_step;
};

void Require(bool holds) {
    if (!holds) std::abort();
}

void CutVideo(mp4_video_codec codec, ByteSource& source, size_t step, size_t inputSize) {
    AccessUnitCutter cutter(codec, source, step);
    size_t taken = 0;
    for (AccessUnit unit; cutter.Next(unit);) {
        Require(unit.NalCount() > 0);
        for (size_t i = 0; i < unit.NalCount(); ++i)
            taken += unit.Nal(i).size;
    }
    Require(taken <= inputSize);
}

void OrderVideo(mp4_video_codec codec, ByteSource& source) {
    FrameOrderer orderer(codec, source);
    FrameOrderer::Frame frame;
    for (uint64_t dts = 0; orderer.Next(frame); ++dts)
        Require(frame.times.dts == dts);
}

void CutAdts(ByteSource& source, size_t step, size_t inputSize) {
    AdtsCutter cutter(source, step);
    size_t taken = 0;
    for (AdtsFrame frame; cutter.Next(frame);) {
        const auto header = ReadAdtsHeader(frame.data);
        Require(header && !header->hasCrc && header->frameSize == frame.size);
        taken += frame.size;
    }
    Require(taken <= inputSize);
}

void CutProRes(ByteSource& source, size_t step, size_t inputSize) {
    ProResCutter cutter(source, step);
    size_t taken = 0;
    for (ProResFrame frame; cutter.Next(frame);)
        taken += frame.size;
    Require(taken <= inputSize);
}

}  // namespace

/// The first byte chooses the cutter, the second how many bytes the source gives at a time.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    const size_t step = size_t{data[1]} + 1;
    const size_t inputSize = size - 2;
    MemorySource source(data + 2, inputSize, step);
    try {
        switch (data[0] % 6) {
            case 0:
                CutVideo(MP4_MVC_H264, source, step, inputSize);
                break;
            case 1:
                CutVideo(MP4_MVC_HEVC, source, step, inputSize);
                break;
            case 2:
                OrderVideo(MP4_MVC_H264, source);
                break;
            case 3:
                OrderVideo(MP4_MVC_HEVC, source);
                break;
            case 4:
                CutAdts(source, step, inputSize);
                break;
            default:
                CutProRes(source, step, inputSize);
        }
    } catch (const StreamError&) {
    }
    return 0;
}

/// @file
/// What a repair info file says of the media, read by the repair's own reader.
#ifndef KX_MP4_TESTS_SIDE_FILE_H
#define KX_MP4_TESTS_SIDE_FILE_H

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "InfoReader.h"
#include "movie_reader.h"
#include "streams.h"

/// A frame that is recorded, with its bytes in the output.
struct RecordedFrame {
    std::string handler;
    Bytes bytes;
    kx_mp4::FrameRecord record;
};

/// The frames that a side file records, each where the one before it ends in the output. Those that
/// do not lie in the output are left out, with a failure of the test.
inline std::vector<RecordedFrame> RecordedFrames(const std::string& sideFile, const Bytes& output) {
    static constexpr const char* kHandlers[] = {"vide", "soun", "clcp", "tmcd"};
    kx_mp4::InfoReader reader(sideFile);
    reader.Begin();
    std::vector<RecordedFrame> frames;
    uint8_t flags = 0;
    uint32_t mdat = 0;
    if (!reader.ReadHead(flags, mdat)) return frames;
    uint64_t at = uint64_t{mdat} + ((flags & MP4_FLAG_64BIT_SIZE) != 0 ? 16 : 8);
    for (kx_mp4::InfoRecord record; reader.Next(record);) {
        const auto* frame = std::get_if<kx_mp4::FrameRecord>(&record);
        if (frame == nullptr) continue;
        if (at + frame->size > output.size()) {
            ADD_FAILURE() << "a frame past the end";
            break;
        }
        const auto begin = output.begin() + static_cast<int64_t>(at);
        frames.push_back({kHandlers[frame->track], Bytes(begin, begin + frame->size), *frame});
        at += frame->size;
    }
    EXPECT_EQ(reader.Problem(), "");
    return frames;
}

/// Compares recorded frames with the first of those that were written.
inline void ExpectRecorded(const std::vector<RecordedFrame>& frames,
                           const std::vector<streams::Expected>& written) {
    ASSERT_LE(frames.size(), written.size());
    for (size_t i = 0; i < frames.size(); ++i) {
        EXPECT_EQ(frames[i].handler, written[i].handler) << i;
        EXPECT_EQ(frames[i].bytes, written[i].bytes) << i;
        if (frames[i].handler != "tmcd") {
            EXPECT_EQ(frames[i].record.dts, written[i].time) << i;
        }
        if (frames[i].handler == "vide") {
            EXPECT_EQ(frames[i].record.sync, written[i].sync) << i;
        }
    }
}

#endif  // KX_MP4_TESTS_SIDE_FILE_H

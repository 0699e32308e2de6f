// Time addresses, their count of frames and the track that they start.
#include <gtest/gtest.h>

#include "Timecode.h"

namespace kxmux {
namespace {

constexpr FrameRate k2997{30000, 1001};
constexpr FrameRate k5994{60000, 1001};

/// Frame count of a time address, -1 when it is refused.
int32_t CountOf(const char* text, const FrameRate& rate) {
    Timecode timecode;
    std::string error;
    if (timecode.Parse(text, rate, &error)) return timecode.FrameCount();
    EXPECT_FALSE(error.empty()) << text;
    return -1;
}

TEST(Timecode, CountsFramesAndLeavesOutDropFrameNumbers) {
    const struct {
        const char* text;
        FrameRate rate;
        int32_t count;
    } cases[] = {
        {"00:00:00:00", {25, 1}, 0},
        {"10:11:12:13", {24000, 1001}, ((10 * 60 + 11) * 60 + 12) * 24 + 13},
        {"23:59:59:29", k2997, 24 * 3600 * 30 - 1},
        {"00:00:01:59", {120, 2}, 119},
        {"23:59:59:99", {255, 1}, (24 * 3600 - 1) * 255 + 99},
        {"00:01:00:00", k2997, 1800},
        {"00:00:59;29", k2997, 1799},
        {"00:01:00;02", k2997, 1800},
        {"00:10:00;00", k2997, 17982},
        {"23:59:59;29", k2997, 2589407},
        {"00:01:00;04", k5994, 3600},
        {"00:10:00;00", k5994, 35964},
        {"00:10:00;00", {60000, 2002}, 17982},  // the same rate as 30000/1001
        // No such number when counting with drops, or no drops at that rate.
        {"00:01:00;01", k2997, -1},
        {"00:59:00;03", k5994, -1},
        {"00:00:00;00", {30, 1}, -1},
        {"00:00:00;00", {24000, 1001}, -1},
        // Rates that a track cannot count.
        {"00:00:00:00", {256, 1}, -1},
        {"00:00:00:00", {1, 3}, -1},  // rounds to no frame at all
        {"00:00:00:00", {25, 0}, -1},
    };
    for (const auto& test : cases)
        EXPECT_EQ(CountOf(test.text, test.rate), test.count) << test.text;
    for (const char* text :
         {"", "1:00:00:00", "00:00:00", "00:00:00:0", "00:00:00:000", "00:00:00.00", "00;00;00;00",
          "aa:00:00:00", "-1:00:00:00", "00:00:00: 1", " 00:00:00:00", "00:00:00:00 ",
          "00:00:00:0\xb2", "24:00:00:00", "00:60:00:00", "00:00:60:00", "00:00:00:25"}) {
        EXPECT_EQ(CountOf(text, {25, 1}), -1) << text;
    }
}

TEST(Timecode, DescribesTheTrack) {
    Timecode timecode;
    std::string error;
    ASSERT_TRUE(timecode.Parse("00:00:10;00", k2997, &error));
    const mp4_time_code_track_info_t drop = timecode.TrackInfo();
    EXPECT_EQ(drop.timescale, 30000u);
    EXPECT_EQ(drop.frame_duration, 1001u);
    EXPECT_EQ(drop.frame_rate, 30);
    EXPECT_EQ(drop.flags, 3);

    ASSERT_TRUE(timecode.Parse("00:00:10:00", {24000, 1001}, &error));
    EXPECT_EQ(timecode.TrackInfo().frame_rate, 24);
    EXPECT_EQ(timecode.TrackInfo().flags, 2);
}

}  // namespace
}  // namespace kxmux

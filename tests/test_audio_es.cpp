#include <gmock/gmock.h>

#include <array>
#include <climits>

#include "AudioES.h"

namespace {

using Config = std::array<uint8_t, 2>;

Config Generate(int profile, int sampleRate, int channels) {
    Config config{};
    CAudioES::Generate(profile, sampleRate, channels, config.data());
    return config;
}

int IndexOf(int sampleRate) {
    const Config config = Generate(2, sampleRate, 0);
    return (config[0] & 7) << 1 | config[1] >> 7;
}

TEST(AudioES, WritesWhatEncodersWriteForCommonStreams) {
    EXPECT_EQ(Generate(2, 48000, 2), (Config{0x11, 0x90}));
    EXPECT_EQ(Generate(2, 44100, 2), (Config{0x12, 0x10}));
    EXPECT_EQ(Generate(1, 22050, 1), (Config{0x0B, 0x88}));
    EXPECT_EQ(Generate(4, 96000, 7), (Config{0x20, 0x38}));
}

TEST(AudioES, ObjectTypesWithoutRoomCountAsLowComplexity) {
    const Config lowComplexity = Generate(2, 48000, 2);
    for (const int profile : {0, -1, 31, 32, 42, INT_MAX, INT_MIN}) {
        EXPECT_EQ(Generate(profile, 48000, 2), lowComplexity) << profile;
    }
    EXPECT_EQ(Generate(30, 48000, 2), (Config{0xF1, 0x90}));
}

TEST(AudioES, ChannelsKeepTheirLowFourBits) {
    EXPECT_EQ(Generate(2, 48000, 15), (Config{0x11, 0xF8}));
    EXPECT_EQ(Generate(2, 48000, 18), Generate(2, 48000, 2));
    EXPECT_EQ(Generate(2, 48000, -1), Generate(2, 48000, 15));
}

TEST(AudioES, EveryRateHasTheIndexWhoseTablesItUses) {
    for (int index = 0; index < 13; ++index) {
        EXPECT_EQ(IndexOf(get_sample_by_index(index)), index);
    }
    EXPECT_EQ(IndexOf(INT_MAX), 0);
    EXPECT_EQ(IndexOf(92017), 0);
    EXPECT_EQ(IndexOf(92016), 1);
    EXPECT_EQ(IndexOf(50000), 3);
    EXPECT_EQ(IndexOf(46008), 4);
    EXPECT_EQ(IndexOf(9391), 10);
    EXPECT_EQ(IndexOf(9390), 11);
    EXPECT_EQ(IndexOf(0), 11);
    EXPECT_EQ(IndexOf(INT_MIN), 11);
}

TEST(AudioES, ReservedIndicesHaveNoRate) {
    for (const int index : {-1, 13, 14, 15, 16, INT_MAX, INT_MIN}) {
        EXPECT_EQ(get_sample_by_index(index), 0) << index;
    }
}

TEST(AudioES, LowBitsStandForRatesThatDoNotFit) {
    EXPECT_EQ(SampleRateOfField(22664), 88200);
    EXPECT_EQ(SampleRateOfField(30464), 96000);
    EXPECT_EQ(SampleRateOfField(48000), 48000);
    EXPECT_EQ(SampleRateOfField(0), 0);
    EXPECT_EQ(SampleRateOfField(65535), 65535);
}

}  // namespace

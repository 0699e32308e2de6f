#include <gmock/gmock.h>

#include <climits>
#include <utility>
#include <vector>

#include "AudioES.h"

using kx_mp4::SampleRateOfField;

namespace {

using Config = std::vector<uint8_t>;

Config Generate(int profile, int sampleRate, int channels) {
    Config config(CAudioES::kMaxConfigSize);
    config.resize(
        static_cast<size_t>(CAudioES::Generate(profile, sampleRate, channels, config.data())));
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
    EXPECT_EQ(Generate(2, 48000, 18), Generate(2, 48000, 2)) << "four bits of channels";
}

TEST(AudioES, ObjectTypesThatCannotBeDescribedCountAsLowComplexity) {
    const Config lowComplexity = Generate(2, 48000, 2);
    for (const int profile : {-1, 6, 8, 17, 20, 23, 28, 30, 31, 39, 42, INT_MAX, INT_MIN}) {
        EXPECT_FALSE(CAudioES::CanDescribe(profile)) << profile;
        EXPECT_EQ(Generate(profile, 48000, 2), lowComplexity) << profile;
    }
    EXPECT_EQ(Generate(0, 48000, 2), lowComplexity);
    for (const int profile : {0, 1, 2, 3, 4, 5, 7, 29})
        EXPECT_TRUE(CAudioES::CanDescribe(profile)) << profile;
    EXPECT_EQ(Generate(7, 48000, 2), (Config{0x39, 0x90}));
}

// As encoders write it for 24000 Hz doubled to 48000 Hz, and a core of one channel for PS.
TEST(AudioES, HighEfficiencyHasItsHierarchicalForm) {
    EXPECT_EQ(Generate(5, 48000, 2), (Config{0x2B, 0x11, 0x88, 0x00}));
    EXPECT_EQ(Generate(29, 44100, 2), (Config{0xEB, 0x8A, 0x08, 0x00}));
    EXPECT_EQ(Generate(5, 50000, 1).size(), 10U) << "both rates as numbers";
}

TEST(AudioES, EveryRateHasTheIndexWhoseTablesItUses) {
    for (int index = 0; index < 13; ++index)
        EXPECT_EQ(IndexOf(get_sample_by_index(index)), index);
    for (const int index : {-1, 13, 15, 16, INT_MAX, INT_MIN})
        EXPECT_EQ(get_sample_by_index(index), 0) << index;
    const std::pair<int, int> kBounds[] = {{INT_MAX, 0}, {92017, 0}, {92016, 1}, {50000, 3},
                                           {46008, 4},   {9391, 10}, {9390, 11}, {INT_MIN, 11}};
    for (const auto& [rate, index] : kBounds)
        EXPECT_EQ(IndexOf(rate), index) << rate;
    EXPECT_EQ(SampleRateOfField(22664), 88200) << "low bits of a rate that does not fit";
    EXPECT_EQ(SampleRateOfField(30464), 96000);
    EXPECT_EQ(SampleRateOfField(48000), 48000);
}

}  // namespace

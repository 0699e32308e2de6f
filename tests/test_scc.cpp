// Scenarist closed caption files and the packets that are made of them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <utility>

#include "Scc.h"

namespace kxmux {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

constexpr char kHeader[] = "Scenarist_SCC V1.0\n\n";
constexpr uint64_t kFrame = 1001;  // ticks at SccFile::kTimescale

/// Time in frames and the two bytes of each packet.
using Sent = std::vector<std::pair<uint64_t, uint32_t>>;

Sent PairsOf(const SccFile& file) {
    Sent sent;
    for (const CaptionPacket& packet : file.Packets(SccFile::kTimescale)) {
        EXPECT_EQ(packet.timestamp % kFrame, 0u);
        EXPECT_THAT(std::vector<uint8_t>(packet.bytes.begin(), packet.bytes.begin() + 4),
                    ElementsAre(0x61, 0x02, 1, 0xFC));
        sent.emplace_back(packet.timestamp / kFrame,
                          static_cast<uint32_t>(packet.bytes[4] << 8 | packet.bytes[5]));
    }
    return sent;
}

Sent Read(const std::string& text) {
    SccFile file;
    std::istringstream in(text);
    EXPECT_TRUE(file.Read(in)) << file.Error();
    return PairsOf(file);
}

std::string ErrorOf(const std::string& text) {
    SccFile file;
    std::istringstream in(text);
    EXPECT_FALSE(file.Read(in)) << text;
    return file.Error();
}

TEST(Scc, SendsOnePairPerFrameFromTheLinesTimeOn) {
    const std::pair<const char*, Sent> cases[] = {
        {"00:00:00:00\t9420 9470 c8e9\n\n00:00:01:00\t942F\n",
         {{0, 0x9420}, {1, 0x9470}, {2, 0xc8e9}, {3, 0x8080}, {30, 0x942F}, {31, 0x8080}}},
        // The time of a late start is kept with a null pair at zero.
        {"00:01:00;02\t942c\n", {{0, 0x8080}, {1800, 0x942c}, {1801, 0x8080}}},
        // A line that begins too early waits.
        {"00:00:00:00\t9420 9420 9470\n00:00:00:01\t942f\n00:00:00:04\t942c\n",
         {{0, 0x9420}, {1, 0x9420}, {2, 0x9470}, {3, 0x942f}, {4, 0x942c}, {5, 0x8080}}},
    };
    for (const auto& [lines, expected] : cases)
        EXPECT_EQ(Read(std::string(kHeader) + lines), expected) << lines;
}

TEST(Scc, RoundsTimesToTheTimescale) {
    SccFile file;
    std::istringstream in(std::string(kHeader) + "23:59:59:28\t942c\n");
    ASSERT_TRUE(file.Read(in));
    const auto packets = file.Packets(1000);
    ASSERT_EQ(packets.size(), 3u);
    EXPECT_EQ(packets[1].timestamp, 86486333u);  // 2591998 * 1001 / 30 = 86486333.27
    EXPECT_EQ(file.Packets(0xFFFFFFFF)[1].timestamp, 371455972844804u);
}

TEST(Scc, ToleratesWhatEditorsDoToTextFiles) {
    const Sent expected = {{0, 0x942c}, {1, 0x942c}, {2, 0x8080}};
    EXPECT_EQ(Read("\xEF\xBB\xBFScenarist_SCC V1.0\r\n\r\n00:00:00:00\t942c 942c\r\n"), expected);
    EXPECT_EQ(Read("Scenarist_SCC V1.0 \n \t\n  00:00:00:00  942c  942c  "), expected);
    EXPECT_THAT(Read("Scenarist_SCC V1.0"), IsEmpty());
}

TEST(Scc, NamesTheLineOfAFault) {
    const std::string header = kHeader;
    const std::pair<std::string, const char*> cases[] = {
        {"", "line 1: "},
        {"\n" + header, "line 1: expected 'Scenarist_SCC V1.0'"},
        {header + "00:00:00\t942c\n", "line 3: expected a time"},
        {header + "00:00:00.00\t942c\n", "line 3: expected a time"},
        {header + "00:00:00:30\t942c\n", "line 3: frame 30"},
        {header + "00:01:00;01\t942c\n", "line 3: drop frame"},
        {header + "00:00:00:00\t\n", "line 3: no words"},
        {header + "00:00:02:00\t942c\n00:00:01:29\t942c\n", "line 4: the time is before"},
        {header + "23:59:59:29\t942c 942c\n", "line 3: the words"},
        {header + std::string(100000, '9'), "line 3: longer"},
    };
    for (const auto& [text, fault] : cases)
        EXPECT_THAT(ErrorOf(text), StartsWith(fault));
    for (const char* word : {"942", "942cc", "94g0", "-123", "0x94", "94 20"}) {
        EXPECT_THAT(ErrorOf(header + "\n00:00:00:00\t942c " + word),
                    StartsWith("line 4: expected words"))
            << word;
    }
}

}  // namespace
}  // namespace kxmux

// Any bytes are refused with a line number or become packets that no two frames share.
#include <cstdlib>
#include <sstream>

#include "Scc.h"

namespace {

void Require(bool condition) {
    if (!condition) std::abort();
}

void CheckPackets(const std::vector<kxmux::CaptionPacket>& packets) {
    constexpr uint64_t kFrame = 1001;
    constexpr uint64_t kFramesPerDay = 24 * 60 * 60 * 30;
    uint64_t next = 0;
    for (const kxmux::CaptionPacket& packet : packets) {
        Require(packet.timestamp % kFrame == 0 && packet.timestamp >= next);
        next = packet.timestamp + kFrame;
        Require(packet.bytes[0] == 0x61 && packet.bytes[1] == 2 && packet.bytes[2] == 1);
        Require(packet.bytes[3] == 0xFC);
    }
    Require(packets.empty() || packets.front().timestamp == 0);
    Require(next <= (kFramesPerDay + 1) * kFrame);  // the last packet is a null pair
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::istringstream in(std::string(data, data + size));
    kxmux::SccFile file;
    if (!file.Read(in)) {
        Require(file.Error().compare(0, 5, "line ") == 0);
        return 0;
    }
    CheckPackets(file.Packets(kxmux::SccFile::kTimescale));
    return 0;
}

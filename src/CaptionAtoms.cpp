#include "CaptionAtoms.h"

#include <cstddef>

#include "Atom.h"
#include "Log.h"

namespace kx_mp4 {
namespace {

constexpr const char* kSource = "src/CaptionAtoms";

// A packet: mark, kind, number, data.
constexpr uint32_t kHeaderSize = 3;
constexpr uint8_t kMark = 0x61;
constexpr uint8_t kMark608 = 0x02;
constexpr uint8_t kMark708 = 0x01;
constexpr uint32_t kTripletSize = 3;
constexpr uint8_t kAtomSize608 = 10;

uint32_t Write608(IBaseIO& writer, const uint8_t* packet, uint32_t size) {
    constexpr uint8_t kFieldMask = 0x03;
    if (size < kHeaderSize + kTripletSize || packet[0] != kMark || packet[1] != kMark608) {
        LogError("subtitle 608 frame format error", kSource, __LINE__, "WriteCC608");
        return 0;
    }
    uint8_t atoms[2][kAtomSize608] = {{0, 0, 0, kAtomSize608, 'c', 'd', 'a', 't', 0, 0},
                                      {0, 0, 0, kAtomSize608, 'c', 'd', 't', '2', 0, 0}};
    uint32_t written = 0;
    const uint8_t* const end = packet + size;
    for (const uint8_t* triplet = packet + kHeaderSize; end - triplet >= ptrdiff_t{kTripletSize};
         triplet += kTripletSize) {
        const int field = triplet[0] & kFieldMask;
        if (field > 1) continue;  // CEA-708 data has no atom in a CEA-608 sample
        uint8_t* const atom = atoms[field];
        atom[8] = triplet[1];
        atom[9] = triplet[2];
        writer.WriteBuf(atom, kAtomSize608);
        written += kAtomSize608;
    }
    return written;
}

uint32_t Write708(IBaseIO& writer, const uint8_t* packet, uint32_t size) {
    if (size < kHeaderSize || packet[0] != kMark || packet[1] != kMark708 ||
        packet[2] > size - kHeaderSize) {
        LogError("subtitle 708 frame format error", kSource, __LINE__, "WriteCC708");
        return 0;
    }
    const uint32_t length = packet[2];
    const uint32_t atomSize = kBoxHeaderSize + length;
    const uint8_t header[kBoxHeaderSize] = {0,   0,  Low8(atomSize >> 8), Low8(atomSize), 'c', 'c',
                                            'd', 'p'};
    writer.WriteBuf(header, sizeof header);
    if (length != 0) writer.WriteBuf(packet + kHeaderSize, length);
    return atomSize;
}

}  // namespace

uint64_t LargestCaptionSample(uint32_t packetSize) {
    return uint64_t{packetSize / kTripletSize} * kAtomSize608 + kBoxHeaderSize;
}

uint32_t WriteCaptionAtoms(IBaseIO& writer, mp4_subtitle_codec codec, const uint8_t* packet,
                           uint32_t size) {
    return codec == MP4_SUBTITLE_CODEC_CC608 ? Write608(writer, packet, size)
                                             : Write708(writer, packet, size);
}

}  // namespace kx_mp4

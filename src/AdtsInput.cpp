#include "AdtsInput.h"

#include <utility>

#include "AdtsHeader.h"
#include "Atom.h"
#include "Log.h"

namespace kx_mp4 {
namespace {
constexpr const char* kSource = "src/AdtsInput";
}  // namespace

mp4_status_t AdtsInput::Configure(const uint8_t* frame, uint32_t size,
                                  mp4_audio_track_info_t& track) {
    if (!AdtsHeader::IsThere(frame, size)) {
        LogError("invalid ADTS stream, please check it.", kSource, __LINE__, "WriteAudioFrame");
        return MP4_STATUS_INVALID_ADTS_STREAM;
    }
    const AdtsHeader header = AdtsHeader::Read(frame);
    track.profile = header.objectType;
    track.sample_rate = Low16(header.SampleRate());
    track.channels = header.channels;
    LogInfo("ADTS stream, get and set audio track", kSource, __LINE__, "WriteAudioFrame");
    return MP4_STATUS_SUCCESS;
}

/// A header with CRC goes whole where its length says that this is one frame. Anything else is more
/// or less than one frame: only the 7 bytes go that every header has, and the rest stays as it is.
uint32_t AdtsInput::BytesToStrip(const uint8_t* frame, uint32_t size) {
    if (!AdtsHeader::IsThere(frame, size)) return 0;
    const AdtsHeader header = AdtsHeader::Read(frame);
    const bool oneFrame = header.frameSize == size;
    if ((!oneFrame || header.blocks > 1) && !std::exchange(m_warned, true)) {
        LogWarn(
            "ADTS frame of %u bytes and %u raw data blocks in a buffer of %u bytes: a call "
            "takes one frame of one block; stored as it is, said once",
            kSource, __LINE__, "WriteAudioFrame", header.frameSize, header.blocks, size);
    }
    return oneFrame && size > header.Size() ? header.Size() : AdtsHeader::kSize;
}

}  // namespace kx_mp4

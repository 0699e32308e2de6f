/// @file
/// What an input is, by its name and by its first bytes.
#ifndef KXMUX_INPUTFORMAT_H
#define KXMUX_INPUTFORMAT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "kx_mp4/kx_mp4.h"

namespace kxmux {

/// First bytes of an input that show what it is.
constexpr size_t kHeadSize = 2048;

/// "H.264", "HEVC" or "ProRes".
const char* CodecName(mp4_video_codec codec);
/// The codec that the extension of a path stands for; #MP4_MVC_UNKNOWN without one that is known.
mp4_video_codec CodecOfExtension(std::string_view path);
/// The video streams that can be read, with their extensions, as part of a sentence.
std::string AcceptedVideo();
/// The same of audio.
std::string AcceptedAudio();

/// Refuses, as StreamError, an input whose first bytes are of a container or another codec. What is
/// not recognised passes.
void RequireRawVideo(mp4_video_codec codec, const std::vector<uint8_t>& head);
void RequireAdts(const std::vector<uint8_t>& head);

}  // namespace kxmux

#endif  // KXMUX_INPUTFORMAT_H

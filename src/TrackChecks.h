/// @file
/// What the set-up operations ask of the caller's descriptions; each refusal is logged.
#ifndef KX_MP4_TRACKCHECKS_H
#define KX_MP4_TRACKCHECKS_H

#include <cstdint>
#include <vector>

#include "ConfigurationRecord.h"
#include "ReservedHeader.h"
#include "kx_mp4/kx_mp4.h"

namespace kx_mp4 {

/// Checks a video description and makes "no parameter set" one thing in it. `complete` tells
/// whether all parameter sets are there.
/// @return As CMp4Muxer::SetVideoTrack.
mp4_status_t CheckVideoTrack(mp4_video_track_info_t& info, const ReservedHeader& reserved,
                             bool& complete);
/// Puts the parameter sets of an `avcC` or `hvcC` record into the description; they stay in the
/// record, as do the `further` ones. `lengthSize` is what is in front of each NAL unit of the
/// frames, in bytes.
/// @return As CMp4Muxer::SetVideoTrack with a record.
mp4_status_t TakeConfigurationRecord(const uint8_t* record, uint32_t size,
                                     mp4_video_track_info_t& info, uint32_t& lengthSize,
                                     std::vector<RecordedSet>& further);
/// `complete` tells whether the configuration is there.
/// @return As CMp4Muxer::SetAudioTrack.
mp4_status_t CheckAudioTrack(const mp4_audio_track_info_t& info, const ReservedHeader& reserved,
                             bool& complete);
/// @return As CMp4Muxer::SetMetadata.
mp4_status_t CheckMetadata(const char* key, const char* data, uint32_t size,
                           mp4_meta_data_type_t type, const char* key_namespace);

}  // namespace kx_mp4

#endif  // KX_MP4_TRACKCHECKS_H

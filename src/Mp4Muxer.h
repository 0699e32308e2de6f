/// @file
/// The name under which the library's own sources include its public class.
#ifndef KX_MP4_MP4MUXER_H
#define KX_MP4_MP4MUXER_H

#include "kx_mp4/Mp4Muxer.h"

#endif  // KX_MP4_MP4MUXER_H

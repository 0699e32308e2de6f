/// @file
/// The name under which the library's own sources include the public log sink.
#ifndef KX_MP4_ZV_LOG_H
#define KX_MP4_ZV_LOG_H

#include "kx_mp4/zv_log.h"

#endif  // KX_MP4_ZV_LOG_H

/// @file
/// The callbacks of #MP4_IO_EXTERNAL over a plain file: what an application starts from when its
/// output goes somewhere that the library cannot open itself.
#ifndef KXMUX_FILECALLBACKS_H
#define KXMUX_FILECALLBACKS_H

#include "kx_mp4/kx_mp4.h"

namespace kxmux {

/// The callback record; valid as long as the program. Any number of muxers can use it, because all
/// that belongs to one output is behind the handle that `init` hands back.
mp4_file_io_func_t* FileCallbacks();

}  // namespace kxmux

#endif  // KXMUX_FILECALLBACKS_H

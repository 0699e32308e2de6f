/// @file
/// `#include <kx_mp4/Mp4Muxer.h>` for applications that build the library from its source tree.
/// The installation puts the header itself in this place.
#include "../../src/Mp4Muxer.h"

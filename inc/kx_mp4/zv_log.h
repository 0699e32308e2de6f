/// @file
/// `#include <kx_mp4/zv_log.h>` for applications that build the library from its source tree.
/// The installation puts the header itself in this place.
#include "../../src/zv_log.h"

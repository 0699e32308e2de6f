/// @file
/// Names of the library's statuses, for messages.
#ifndef KXMUX_STATUSNAME_H
#define KXMUX_STATUSNAME_H

#include "kx_mp4/kx_mp4.h"

namespace kxmux {

/// The enumerator's name, such as "MP4_STATUS_NO_SPACE_LEFT"; never null.
const char* StatusName(mp4_status_t status);

}  // namespace kxmux

#endif  // KXMUX_STATUSNAME_H

/// @file
/// The log sink that the library calls.
///
/// The library's default sink (zv_log.cpp) prints errors and warnings to standard error, one line
/// each, and drops information lines. An application replaces it by defining these three functions,
/// all of them, in the program itself:
/// - With the static library the program's definitions are found first; the default sink is the
///   only content of its object file, which is then left out.
/// - In the shared libraries the functions are exported and called through the dynamic symbol
///   table, where the program's definitions come before those of any library. They must be visible
///   outside the program: include this header where they are defined, also with
///   `-fvisibility=hidden`, and do not link the libraries with `-Bsymbolic`.
#ifndef KX_MP4_KX_MP4_ZV_LOG_H
#define KX_MP4_KX_MP4_ZV_LOG_H

#include "kx_mp4/export.h"

extern "C" {
/// Logs a failure. `file` is the source file without extension ("src/stbl"), `function` the name
/// of the operation; the arguments of `format` follow. May be called from any thread.
KX_MP4_EXPORT void zv_log_error(const char* format, const char* file, int line,
                                const char* function, ...) __attribute__((format(printf, 1, 5)));
/// Logs something doubtful that the library went on from.
KX_MP4_EXPORT void zv_log_warn(const char* format, const char* file, int line, const char* function,
                               ...) __attribute__((format(printf, 1, 5)));
/// Logs progress and timings.
KX_MP4_EXPORT void zv_log_info(const char* format, const char* file, int line, const char* function,
                               ...) __attribute__((format(printf, 1, 5)));
}

#endif  // KX_MP4_KX_MP4_ZV_LOG_H

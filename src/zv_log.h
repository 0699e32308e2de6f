/// @file
/// The log sink that the library calls.
///
/// The library's default sink (zv_log.cpp) prints errors and warnings to standard error, one line
/// each, and drops information lines. It is the only content of its object file, so an application
/// that defines these three functions itself replaces it when it links the static library.
#ifndef KX_MP4_ZV_LOG_H
#define KX_MP4_ZV_LOG_H

extern "C" {
/// Logs a failure. `file` is the source file without extension ("src/stbl"), `function` the name
/// of the operation; the arguments of `format` follow. May be called from any thread.
void zv_log_error(const char* format, const char* file, int line, const char* function, ...)
    __attribute__((format(printf, 1, 5)));
/// Logs something doubtful that the library went on from.
void zv_log_warn(const char* format, const char* file, int line, const char* function, ...)
    __attribute__((format(printf, 1, 5)));
/// Logs progress and timings.
void zv_log_info(const char* format, const char* file, int line, const char* function, ...)
    __attribute__((format(printf, 1, 5)));
}

#endif  // KX_MP4_ZV_LOG_H

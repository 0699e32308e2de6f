// The application's own log sink: the library must call it instead of its default one.
#include <kx_mp4/zv_log.h>

#include "log.h"

int g_logLines = 0;

void zv_log_error(const char*, const char*, int, const char*, ...) {
    ++g_logLines;
}

void zv_log_warn(const char*, const char*, int, const char*, ...) {
    ++g_logLines;
}

void zv_log_info(const char*, const char*, int, const char*, ...) {}

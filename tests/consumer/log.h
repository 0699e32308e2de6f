#ifndef RECORDER_LOG_H
#define RECORDER_LOG_H

/// Errors and warnings that the library has logged.
extern int g_logLines;

#endif  // RECORDER_LOG_H

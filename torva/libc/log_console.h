// The console writers, the initial values of the hooks in torva/libc/log.h. Do not call
// them by name: use the hooks.
// Private to the library: not installed.
#pragma once

#include <stdarg.h>

#ifdef __cplusplus
extern "C" {
#endif

void torva_console_log(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));
void torva_console_logv(int priority, const char* format, va_list arguments)
    __attribute__((format(printf, 2, 0)));

#ifdef __cplusplus
} // extern "C"
#endif

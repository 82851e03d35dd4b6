// The console writers, to which the hooks of torva/libc/log.h point at first. Not to be
// called by name: that is what the hooks are for.
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

// The two process-wide logging hooks through which the plain functions report, and a
// function for errors that may end the process. The stream for fatal exceptions is
// torva/util/UtilityErrorStream.h.
#pragma once

#include <stdarg.h>

#ifdef __cplusplus
extern "C" {
#endif

/// The hook through which library code reports, with the signature of syslog(3);
/// `priority` is one of its levels or one of the panel's own above them. It must not be
/// null. Other code in the process may replace it, by assignment or by its own definition
/// of the variable, which the linker then uses instead of the library's. Initially it is a
/// console writer: a message whose priority is at most the level (6) is written, with a
/// line feed, to standard error and then to standard output; others are dropped. Output
/// errors are ignored, and a reader that is gone causes no SIGPIPE.
extern void (*torva_log)(int priority, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

/// The same with an argument list, as vsyslog(3). It is replaced separately.
extern void (*torva_logv)(int priority, const char* format, va_list arguments)
    __attribute__((format(printf, 2, 0)));

/// Name of the program, set by assignment or by a definition, and owned by whoever sets
/// it; null until then. report_error() writes its last path component before the message.
extern const char* PROGNAME;

/// Sets both hooks.
///
/// \param target    null: syslog(3), after openlog(3); anything else: the console
///                  writers (a text that does not begin with "console", in upper or
///                  lower case, also clears the console flag)
/// \param level     highest priority that the console writers print; below 1
///                  means 0, and clears the console flag
/// \param facility  facility for openlog(3)
/// \param options   options for openlog(3); LOG_PID is added
/// \param ident     ident for openlog(3), which keeps the pointer
void log_init(const char* target, int level, int facility, int options, const char* ident);

/// The state that log_init() sets: priority limit of the console writers, console flag (1
/// or 0; it has no effect here) and facility.
int log_level(void);
int log_console(void);
int log_facility(void);

/// Writes a message to standard error and then to standard output, preceded by the
/// program's name and ": " if PROGNAME is set, and ended by a line feed.
///
/// \param status  0: returns; anything else: ends the process with exit(status)
/// \param format  printf(3) format
/// When errno is not 0 on entry, "\nSystem error %d: %s" with it is appended, so set it to
/// 0 before a failure that is not a system error. errno is left as it was. Output errors
/// are ignored, as by the console writers.
void report_error(int status, const char* format, ...) __attribute__((format(printf, 2, 3)));

#ifdef __cplusplus
} // extern "C"
#endif

// The two process-wide logging hooks through which the plain functions report,
// and the reporter of errors that may end the process. Exceptions never pass
// through here; the one stream for fatal exceptions is torva/util/UtilityErrorStream.h.
#pragma once

#include <stdarg.h>

#ifdef __cplusplus
extern "C" {
#endif

/// Where library code reports: the shape of syslog(3), `priority` being one of
/// its levels or one of the panel's own above them. Never null. Other code of
/// the process may replace it, by assignment or by a definition of its own, which
/// then stands in place of the library's. Initially a console writer: a message whose
/// priority is at most the level (6) goes, with a line feed, to standard error
/// and then to standard output; any other goes nowhere. Output errors are ignored,
/// also those of a reader that has left: there is no SIGPIPE.
extern void (*torva_log)(int priority, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

/// The same with an argument list: the shape of vsyslog(3). Replaced on its own.
extern void (*torva_logv)(int priority, const char* format, va_list arguments)
    __attribute__((format(printf, 2, 0)));

/// Name of the program, owned by whoever sets it, by assignment or by a definition;
/// null until then. Its last path component stands in front of what report_error()
/// writes.
extern const char* PROGNAME;

/// Chooses where the hooks write.
///
/// \param target    null: the system log, opened with openlog(3); anything else:
///                  the console writers (text that does not begin with "console",
///                  in any case, clears the console flag as well)
/// \param level     highest priority that the console writers print; below 1
///                  means 0, and clears the console flag
/// \param facility  facility for openlog(3)
/// \param options   options for openlog(3); LOG_PID is added
/// \param ident     ident for openlog(3), kept by the system log: must outlive it
void log_init(const char* target, int level, int facility, int options, const char* ident);

/// State that log_init() sets, for code that wants to know: priority limit of the
/// console writers, console flag (1 or 0; it suppresses nothing) and facility.
int log_level(void);
int log_console(void);
int log_facility(void);

/// Writes a message to standard error and then to standard output, each with the
/// program's name in front and a line feed at the end, and each flushed.
///
/// \param status  0: returns; anything else: ends the process with exit(status)
/// \param format  printf(3) format
/// When errno is not 0 on entry, "\nSystem error %d: %s" with it is appended, so
/// set it to 0 where the failure is no system error. errno is left as it was. Output
/// errors are ignored as by the console writers.
void report_error(int status, const char* format, ...) __attribute__((format(printf, 2, 3)));

#ifdef __cplusplus
} // extern "C"
#endif

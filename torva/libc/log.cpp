#include "torva/libc/log.h"

#include "torva/libc/log_console.h"
#include "torva/libc/sigpipe.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <strings.h>
#include <syslog.h>

namespace {

int level = 6;
int console = 1;
int facility = LOG_MAIL;

/// A text in memory from malloc(3) that grows as it is appended to.
struct Text {
    char* data;
    size_t size; ///< bytes allocated, at least 1
    size_t length;
};

/// An empty text; its data is null when memory runs out.
Text newText() {
    const size_t first_size = 4096;
    Text text = {static_cast<char*>(std::malloc(first_size)), first_size, 0};
    if (text.data != nullptr) {
        text.data[0] = '\0';
    }
    return text;
}

/// Appends to the text, which grows to the exact size; truncates when memory runs out.
/// `error` is the errno for "%m".
__attribute__((format(printf, 3, 0))) void appendv(Text& text, int error, const char* format,
                                                   va_list arguments) {
    va_list again;
    va_copy(again, arguments);
    errno = error;
    const size_t room = text.size - text.length;
    const int formatted = std::vsnprintf(text.data + text.length, room, format, arguments);
    if (formatted < 0) {
        text.data[text.length] = '\0';
    } else if (static_cast<size_t>(formatted) < room) {
        text.length += static_cast<size_t>(formatted);
    } else {
        const size_t size = text.length + static_cast<size_t>(formatted) + 1;
        if (void* grown = std::realloc(text.data, size)) {
            text.data = static_cast<char*>(grown);
            text.size = size;
            errno = error;
            std::vsnprintf(text.data + text.length, size - text.length, format, again);
        }
        text.length = text.size - 1;
    }
    va_end(again);
}

__attribute__((format(printf, 3, 4))) void append(Text& text, int error, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    appendv(text, error, format, arguments);
    va_end(arguments);
}

/// Writes one copy of a report, in one call so that other output does not split it.
void writeReport(FILE* stream, const char* message) {
    const char* program = PROGNAME;
    if (program != nullptr) {
        const char* slash = std::strrchr(program, '/');
        program = slash != nullptr ? slash + 1 : program;
    }
    const size_t length = std::strlen(message);
    const bool ended = length > 0 && message[length - 1] == '\n';
    std::fprintf(stream, "%s%s%s%s", program != nullptr ? program : "",
                 program != nullptr ? ": " : "", message, ended ? "" : "\n");
    std::fflush(stream);
}

} // namespace

extern "C" {

void torva_console_logv(int priority, const char* format, va_list arguments) {
    if (priority > level) {
        return;
    }
    const int saved_errno = errno;
    Text text = newText();
    if (text.data != nullptr) {
        appendv(text, saved_errno, format, arguments);
    }
    // Without memory, the bare format is better than nothing.
    const char* message = text.data != nullptr ? text.data : format;
    // A reader that is gone is an output error like any other.
    const int held = sigpipe_hold();
    for (FILE* stream : {stderr, stdout}) {
        std::fprintf(stream, "%s\n", message);
        std::fflush(stream);
    }
    sigpipe_release(held);
    std::free(text.data);
    errno = saved_errno;
}

void torva_console_log(int priority, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    torva_console_logv(priority, format, arguments);
    va_end(arguments);
}

int log_level(void) {
    return level;
}

int log_console(void) {
    return console;
}

int log_facility(void) {
    return facility;
}

void log_init(const char* target, int new_level, int new_facility, int options, const char* ident) {
    level = new_level < 1 ? 0 : new_level;
    console = new_level < 1 ? 0 : 1;
    facility = new_facility;
    if (target == nullptr) {
        closelog();
        openlog(ident, options | LOG_PID, facility);
        torva_log = syslog;
        torva_logv = vsyslog;
        return;
    }
    torva_log = torva_console_log;
    torva_logv = torva_console_logv;
    if (strncasecmp(target, "console", 7) != 0) {
        console = 0;
    }
}

void report_error(int status, const char* format, ...) {
    const int saved_errno = errno;
    Text text = newText();
    if (text.data != nullptr) {
        va_list arguments;
        va_start(arguments, format);
        appendv(text, saved_errno, format, arguments);
        va_end(arguments);
        if (saved_errno != 0) {
            append(text, saved_errno, "\nSystem error %d: %s", saved_errno,
                   std::strerror(saved_errno));
        }
    }
    const char* message =
        text.data != nullptr ? text.data : "Can't allocate memory for error message";
    const int held = sigpipe_hold();
    writeReport(stderr, message);
    writeReport(stdout, message);
    sigpipe_release(held);
    std::free(text.data);
    if (status != 0) {
        std::exit(status);
    }
    errno = saved_errno;
}

} // extern "C"

#include "torva/maildb/format_text.h"

#include "torva/libc/log.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace torva::maildb {

Text format_text(const char* format, ...) noexcept {
    va_list arguments;
    va_start(arguments, format);
    char* text = nullptr;
    const int length = vasprintf(&text, format, arguments);
    va_end(arguments);
    if (length < 0) { // what text points at is undefined then
        torva_log(3, "Cannot allocate memory: %s", std::strerror(errno));
        return nullptr;
    }
    return Text(text);
}

} // namespace torva::maildb

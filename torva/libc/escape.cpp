#include "torva/libc/escape.h"

namespace {

// One row for each sixteen bytes, from NUL on.
const char marks[] = "---------*n-----"
                     "----------------"
                     "*-***-*****-----" // space " # $ & ' ( ) *
                     "-----------**-**" // ; < > ?
                     "----------------"
                     "-----------**---" // [ backslash
                     "*---------------" // backquote
                     "------------*-*-" // | ~
                     "----------------"
                     "----------------"
                     "----------------"
                     "----------------"
                     "----------------"
                     "----------------"
                     "----------------"
                     "----------------";
static_assert(sizeof(marks) == 256 + 1, "one mark for each byte value");

} // namespace

extern "C" {

const char* shell_escape_chars = marks;

int is_shell_safe(const char* text) {
    if (text == nullptr) {
        return 1;
    }
    while (*text != '\0' && shell_escape_chars[static_cast<unsigned char>(*text)] == '-') {
        ++text;
    }
    return *text == '\0' ? 1 : 0;
}

} // extern "C"

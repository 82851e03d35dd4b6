// Alone in its file: a program that defines this variable itself links without this object
// of the archive, otherwise its definition would be a duplicate.
#include "torva/libc/log.h"
#include "torva/libc/log_console.h"

void (*torva_log)(int priority, const char* format, ...) = torva_console_log;

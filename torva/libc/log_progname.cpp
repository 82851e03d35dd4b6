// Alone in its file: a program that defines this variable itself links without this object
// of the archive, otherwise its definition would be a duplicate.
#include "torva/libc/log.h"

const char* PROGNAME = nullptr;

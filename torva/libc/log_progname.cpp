// Alone in its file, so that a program that defines this variable itself links without this
// object of the archive. Otherwise there would be two definitions.
#include "torva/libc/log.h"

const char* PROGNAME = nullptr;

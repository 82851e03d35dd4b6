// Alone in its file: a program that defines this variable itself links without this object
// of the archive, where a second definition beside other things would be an error.
#include "torva/libc/log.h"

const char* PROGNAME = nullptr;

// A program that defines hooks of the library itself. Which of them is chosen by the
// build; it has to link against the archive, and the library has to use them.
#include "torva/libc/interfaces.h"
#include "torva/libc/log.h"

#include <cstdio>
#include <cstring>
#include <sys/resource.h>

namespace {

int logged = 0;
int listed = 0;

void logInstead(int /*priority*/, const char* /*format*/, ...) {
    ++logged;
}

void logListInstead(int /*priority*/, const char* /*format*/, va_list /*arguments*/) {
    ++listed;
}

bool expect(const char* what, bool holds) {
    if (!holds) {
        std::fprintf(stderr, "FAILED: %s\n", what);
    }
    return holds;
}

} // namespace

#ifdef OWN_LOG
void (*torva_log)(int, const char*, ...) = logInstead;
#endif
#ifdef OWN_LOGV
void (*torva_logv)(int, const char*, va_list) = logListInstead;
#endif
#ifdef OWN_PROGNAME
const char* PROGNAME = "/opt/panel/own";
#endif

int main() {
    const bool ownLog = torva_log == logInstead;
    const bool ownLogv = torva_logv == logListInstead;
    const bool ownName = PROGNAME != nullptr;
    const rlimit noMore = {3, 3};
    ::setrlimit(RLIMIT_NOFILE, &noMore); // list_interfaces() finds no descriptor and reports
    bool right = expect("no list without a descriptor", list_interfaces(nullptr) == nullptr);
    right = expect("the library reports through the program's hook", logged == (ownLog ? 1 : 0)) &&
            right;
    report_error(0, "a report"); // for the whole unit of the console writers
    log_init("console", 6, 0, 0, nullptr);
    right = expect("log_init() still replaces them", torva_log != logInstead) && right;
    right = expect("log_init() still replaces them", torva_logv != logListInstead) && right;
    right = expect("nothing went through the list", listed == 0) && right;
#ifdef OWN_LOG
    right = expect("torva_log is the program's", ownLog) && right;
#endif
#ifdef OWN_LOGV
    right = expect("torva_logv is the program's", ownLogv) && right;
#endif
#ifdef OWN_PROGNAME
    right = expect("PROGNAME is the program's", ownName) && right;
#endif
    static_cast<void>(ownLogv);
    static_cast<void>(ownName);
    return right ? 0 : 1;
}

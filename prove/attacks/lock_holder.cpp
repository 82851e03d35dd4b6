// An attacker that stops whoever needs the lock of an index: holds the locks of all indexes
// in some directories, and of each new one as soon as the kernel reports it.
//
//   lock_holder UID DIRECTORY...
//
// Prints "ready" once it watches, and at the end of its standard input how many locks it has
// taken.
#include "support/IndexHolder.h"

#include <cstdio>
#include <cstdlib>
#include <exception>

int main(int argc, char** argv) {
    if (argc < 3) {
        return 2;
    }
    const auto user = static_cast<uid_t>(std::strtoul(argv[1], nullptr, 10));
    if (::setgroups(0, nullptr) != 0 || ::setresgid(user, user, user) != 0 ||
        ::setresuid(user, user, user) != 0) {
        std::perror("lock_holder");
        return 2;
    }
    try {
        const long taken = torva::test::holdEveryLock({argv + 2, argv + argc}, STDIN_FILENO, [] {
            std::puts("ready");
            std::fflush(stdout);
        });
        std::printf("%ld\n", taken);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "lock_holder: %s\n", error.what());
        return 2;
    }
    return 0;
}

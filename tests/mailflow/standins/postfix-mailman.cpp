// postfix-mailman NEXTHOP USER RECIPIENT: stands in for the panel's hand-off to
// Mailman.
//
// Started by pipe(8), with the message on standard input. For the test it keeps both
// in a file of its own per message, /run/mailflow/mailman/XXXXXX: the arguments, one a
// line, an empty line, the message.
#include "Complain.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <sysexits.h>

using torva::mailflow::complain;

int main(int argc, char** argv) {
    if (argc != 4) {
        std::cerr << "usage: postfix-mailman NEXTHOP USER RECIPIENT\n";
        return EX_USAGE;
    }
    std::string path = "/run/mailflow/mailman/XXXXXX";
    const int descriptor = mkstemp(path.data());
    std::FILE* file = descriptor < 0 ? nullptr : fdopen(descriptor, "w");
    if (file == nullptr) {
        return complain(path, EX_TEMPFAIL);
    }
    std::fprintf(file, "%s\n%s\n%s\n\n", argv[1], argv[2], argv[3]);
    for (int byte = 0; (byte = std::getchar()) != EOF;) {
        std::putc(byte, file);
    }
    const bool failed = std::ferror(stdin) != 0 || std::ferror(file) != 0;
    if (std::fclose(file) != 0 || failed) {
        return complain(path, EX_TEMPFAIL);
    }
    return EX_OK;
}

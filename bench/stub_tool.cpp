// Takes the place of every Postfix tool: answers from a table of two lines and
// ends, so that what is measured is our side alone.
#include <cstring>
#include <unistd.h>

namespace {

struct Answer {
    const char* name;
    const char* value;
};

const Answer answers[] = {
    {"config_directory", "/etc/postfix\n"},
    {"myhostname", "host.example.net\n"},
};

} // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        return 0;
    }
    for (const Answer& answer : answers) {
        if (std::strcmp(argv[1], "-h") == 0 && std::strcmp(argv[argc - 1], answer.name) == 0) {
            return ::write(STDOUT_FILENO, answer.value, std::strlen(answer.value)) < 0 ? 1 : 0;
        }
    }
    if (argc > 2 && std::strcmp(argv[2], "-i") == 0) {
        // If nobody read the records, writing them would fail.
        char chunk[4096];
        while (::read(STDIN_FILENO, chunk, sizeof chunk) > 0) {
        }
    }
    return 0;
}

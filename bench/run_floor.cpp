// The least that a run of torva-postfix-setup can cost: starts the commands that a run
// started, one after another, with the same input, and does nothing else, except what
// keeps Postfix from sleeping. scripts/bench compares the two.
//
//     run_floor COMMANDS MAIN_CF
//
// COMMANDS: for each command the number of its words, the words and its input,
// each ended by a NUL byte.
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <spawn.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace {

struct Command {
    std::vector<std::string> words;
    std::string input;
};

[[noreturn]] void die(const std::string& what) {
    std::fprintf(stderr, "run_floor: %s\n", what.c_str());
    std::exit(1);
}

std::vector<Command> readCommands(const char* path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        die(std::string("cannot read ") + path);
    }
    const std::string text((std::istreambuf_iterator<char>(file)), {});
    std::size_t at = 0;
    const auto next = [&] {
        const std::size_t end = text.find('\0', at);
        if (end == std::string::npos) {
            die("the list of commands ends early");
        }
        const std::string field = text.substr(at, end - at);
        at = end + 1;
        return field;
    };
    std::vector<Command> commands;
    while (at < text.size()) {
        Command command;
        for (int count = std::stoi(next()); count > 0; --count) {
            command.words.push_back(next());
        }
        command.input = next();
        commands.push_back(command);
    }
    return commands;
}

// A descriptor to read the input from: a pipe that holds all of it, or nothing.
int inputOf(const Command& command) {
    if (command.input.empty()) {
        return ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    }
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0 ||
        ::write(ends[1], command.input.data(), command.input.size()) !=
            static_cast<ssize_t>(command.input.size())) {
        die("the input does not fit into a pipe");
    }
    ::close(ends[1]);
    ::fcntl(ends[0], F_SETFL, 0);
    return ends[0];
}

void run(Command& command) {
    std::vector<char*> argv;
    for (std::string& word : command.words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    const int input = inputOf(command);
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
    pid_t child = 0;
    if (::posix_spawn(&child, argv[0], &actions, nullptr, argv.data(), environ) != 0) {
        die("cannot start " + command.words[0]);
    }
    ::posix_spawn_file_actions_destroy(&actions);
    ::close(input);
    int status = 0;
    if (::waitpid(child, &status, 0) != child || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        die("failed: " + command.words[0]);
    }
}

// Postfix's programs sleep while main.cf is younger than about two seconds.
void age(const char* mainCf) {
    timespec past[2];
    ::clock_gettime(CLOCK_REALTIME, &past[0]);
    past[0].tv_sec -= 10;
    past[1] = past[0];
    ::utimensat(AT_FDCWD, mainCf, past, 0);
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        die("usage: run_floor COMMANDS MAIN_CF");
    }
    for (Command& command : readCommands(argv[1])) {
        run(command);
        if (command.words.size() > 1 && command.words[1] == "-e") {
            age(argv[2]);
        }
    }
    return 0;
}

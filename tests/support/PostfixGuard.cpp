#include "support/PostfixGuard.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <new>
#include <spawn.h>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

extern "C" char** environ;

namespace {

const char directory[] = "/usr/sbin/";
const char family[] = "post";

/// Shared with forked children: an attempt is nearly always made by one.
struct Attempts {
    int count;
    char text[4000];
};

Attempts* attempts = nullptr;

template <typename Function>
Function* real(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

bool isPostfixPath(const char* path) {
    const std::size_t length = std::strlen(directory);
    return std::strncmp(path, directory, length) == 0 &&
           std::strncmp(path + length, family, std::strlen(family)) == 0;
}

/// A path that leads to a program of Postfix, by links and dots, too. No memory is asked
/// for: the test may have let it run out.
bool leadsToPostfix(const char* path) {
    char resolved[PATH_MAX];
    return isPostfixPath(path) ||
           (::realpath(path, resolved) != nullptr && isPostfixPath(resolved));
}

/// What execvp(3) would start.
bool nameLeadsToPostfix(const char* name) {
    if (std::strchr(name, '/') != nullptr) {
        return leadsToPostfix(name);
    }
    const char* path = std::getenv("PATH");
    for (const char* part = path != nullptr ? path : "/bin:/usr/bin"; part != nullptr;) {
        const char* end = std::strchr(part, ':');
        const auto length =
            static_cast<int>(end != nullptr ? end - part : static_cast<long>(std::strlen(part)));
        char candidate[PATH_MAX];
        std::snprintf(candidate, sizeof(candidate), "%.*s/%s", length, part, name);
        if (::access(candidate, X_OK) == 0) {
            return leadsToPostfix(candidate);
        }
        part = end != nullptr ? end + 1 : nullptr;
    }
    return false;
}

bool commandLeadsToPostfix(const char* command) {
    const char separators[] = " \t\n;&|()<>\"'`$={}";
    while (*(command += std::strspn(command, separators)) != '\0') {
        const std::size_t length = std::strcspn(command, separators);
        char word[PATH_MAX];
        std::snprintf(word, sizeof(word), "%.*s", static_cast<int>(length), command);
        if (nameLeadsToPostfix(word)) {
            return true;
        }
        command += length;
    }
    return false;
}

/// Notes the attempt; errno is what the refused call fails with. Always true.
bool refuse(const char* what) {
    const std::size_t used = std::strlen(attempts->text);
    std::snprintf(attempts->text + used, sizeof(attempts->text) - used, "%s\n", what);
    ++attempts->count;
    errno = EACCES;
    return true;
}

bool refused(bool leads, const char* what) {
    return attempts != nullptr && leads && refuse(what);
}

class Listener : public testing::EmptyTestEventListener {
    void OnTestEnd(const testing::TestInfo& test) override {
        const std::string text = torva::test::takePostfixAttempts();
        if (!text.empty()) {
            ADD_FAILURE() << test.test_suite_name() << '.' << test.name()
                          << ": attempt to start the machine's own Postfix:\n"
                          << text;
        }
    }
};

/// Before main(), so that no test runs without it.
bool install() {
    if (std::getenv("TORVA_SANDBOX") != nullptr) {
        return false;
    }
    void* shared = ::mmap(nullptr, sizeof(Attempts), PROT_READ | PROT_WRITE,
                          MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED) {
        throw std::runtime_error("no memory for the guard of Postfix");
    }
    attempts = new (shared) Attempts();
    testing::UnitTest::GetInstance()->listeners().Append(new Listener);
    return true;
}

const bool installed = install();

/// The arguments of execl(3) as an array.
class ArgumentArray {
public:
    ArgumentArray(const char* first, va_list& rest) {
        std::size_t count = 0;
        for (const char* one = first; one != nullptr; one = va_arg(rest, const char*)) {
            if (count == sizeof(words_) / sizeof(words_[0]) - 1) {
                std::abort();
            }
            words_[count++] = const_cast<char*>(one);
        }
        words_[count] = nullptr;
    }
    char** words() { return words_; }

private:
    char* words_[64];
};

} // namespace

std::string torva::test::takePostfixAttempts() {
    if (!installed) {
        return "";
    }
    const std::string text = attempts->text;
    *attempts = Attempts();
    return text;
}

extern "C" {

int execve(const char* path, char* const arguments[], char* const environment[]) noexcept {
    static const auto next = real<decltype(execve)>("execve");
    return refused(leadsToPostfix(path), path) ? -1 : next(path, arguments, environment);
}

int execv(const char* path, char* const arguments[]) noexcept {
    static const auto next = real<decltype(execv)>("execv");
    return refused(leadsToPostfix(path), path) ? -1 : next(path, arguments);
}

int execvp(const char* name, char* const arguments[]) noexcept {
    static const auto next = real<decltype(execvp)>("execvp");
    return refused(nameLeadsToPostfix(name), name) ? -1 : next(name, arguments);
}

int execvpe(const char* name, char* const arguments[], char* const environment[]) noexcept {
    static const auto next = real<decltype(execvpe)>("execvpe");
    return refused(nameLeadsToPostfix(name), name) ? -1 : next(name, arguments, environment);
}

int execl(const char* path, const char* first, ...) noexcept {
    va_list rest;
    va_start(rest, first);
    ArgumentArray arguments(first, rest);
    va_end(rest);
    return execv(path, arguments.words());
}

int execlp(const char* name, const char* first, ...) noexcept {
    va_list rest;
    va_start(rest, first);
    ArgumentArray arguments(first, rest);
    va_end(rest);
    return execvp(name, arguments.words());
}

int fexecve(int fd, char* const arguments[], char* const environment[]) noexcept {
    static const auto next = real<decltype(fexecve)>("fexecve");
    char path[64];
    std::snprintf(path, sizeof(path), "/proc/self/fd/%d", fd);
    return refused(leadsToPostfix(path), path) ? -1 : next(fd, arguments, environment);
}

int posix_spawn(pid_t* pid, const char* path, const posix_spawn_file_actions_t* actions,
                const posix_spawnattr_t* attributes, char* const arguments[],
                char* const environment[]) {
    static const auto next = real<decltype(posix_spawn)>("posix_spawn");
    return refused(leadsToPostfix(path), path)
               ? EACCES
               : next(pid, path, actions, attributes, arguments, environment);
}

int posix_spawnp(pid_t* pid, const char* name, const posix_spawn_file_actions_t* actions,
                 const posix_spawnattr_t* attributes, char* const arguments[],
                 char* const environment[]) {
    static const auto next = real<decltype(posix_spawnp)>("posix_spawnp");
    return refused(nameLeadsToPostfix(name), name)
               ? EACCES
               : next(pid, name, actions, attributes, arguments, environment);
}

int system(const char* command) {
    static const auto next = real<decltype(system)>("system");
    return command != nullptr && refused(commandLeadsToPostfix(command), command) ? -1
                                                                                  : next(command);
}

FILE* popen(const char* command, const char* mode) {
    static const auto next = real<decltype(popen)>("popen");
    return refused(commandLeadsToPostfix(command), command) ? nullptr : next(command, mode);
}

} // extern "C"

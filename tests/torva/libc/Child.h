// Results and output of a forked child, for code that ends the process, that keeps
// process-wide state, or whose standard streams are compared byte for byte.
#pragma once

#include "support/Sanitizer.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <functional>
#include <iostream>
#include <set>
#include <stdexcept>
#include <string>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace torva::test {

struct Outcome {
    int exited = -1; ///< exit status; -1 when a signal ended the child
    std::string out;
    std::string err; ///< empty when both streams were one
};

enum class Streams { apart, one };

inline std::string contents(int fd) {
    std::string text;
    char piece[4096];
    ssize_t size = 0;
    while ((size = ::pread(fd, piece, sizeof(piece), static_cast<off_t>(text.size()))) > 0) {
        text.append(piece, static_cast<std::size_t>(size));
    }
    return text;
}

/// Runs the body in a forked child whose standard output and error are files in
/// memory, apart or one and the same.
///
/// \param body  its result is the child's exit status; 99 after an exception
inline Outcome inChild(const std::function<int()>& body, Streams streams = Streams::apart) {
    std::fflush(nullptr);
    std::cout.flush();
    const int out = ::memfd_create("out", MFD_CLOEXEC);
    const int err = streams == Streams::one ? ::dup(out) : ::memfd_create("err", MFD_CLOEXEC);
    if (out == -1 || err == -1) {
        throw std::runtime_error("memfd_create");
    }
    const pid_t pid = ::fork();
    if (pid == 0) {
        int status = 99;
        ::dup2(out, STDOUT_FILENO);
        ::dup2(err, STDERR_FILENO);
        ::close(out);
        ::close(err);
        try {
            status = body();
        } catch (const std::exception& error) {
            std::fprintf(stderr, "unexpected: %s\n", error.what());
        }
        std::cout.flush();
        std::fflush(nullptr);
        ::_exit(status);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    Outcome outcome;
    outcome.exited = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    outcome.out = contents(out);
    outcome.err = streams == Streams::one ? "" : contents(err);
    ::close(out);
    ::close(err);
    return outcome;
}

/// Allocates all memory: from now on malloc(3) fails for every size.
inline void exhaustMemory() {
    const rlimit none = {0, 0};
    ::setrlimit(RLIMIT_AS, &none);
    // Volatile: the compiler may remove an allocation that is not used.
    void* volatile taken = nullptr;
    for (std::size_t size = 65536; size >= 8; size /= 2) {
        do {
            taken = std::malloc(size); // NOLINT(clang-analyzer-unix.Malloc)
        } while (taken != nullptr);
    }
}

/// Numbers of the open descriptors.
inline std::set<int> openDescriptors() {
    std::set<int> open;
    for (int fd = 0; fd < 1024; ++fd) {
        if (::fcntl(fd, F_GETFD) != -1) {
            open.insert(fd);
        }
    }
    return open;
}

/// Replaces a standard stream by a pipe without a reader.
inline void losesItsReader(int stream) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) == 0) {
        ::dup2(fds[1], stream);
        ::close(fds[0]);
        ::close(fds[1]);
    }
}

} // namespace torva::test

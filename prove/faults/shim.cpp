// Preloaded into the tool by the sweep: makes the N-th close(2) or execv(3) of the tool fail,
// the two that strace cannot break realistically. On Linux, a close(2) that fails has closed
// the descriptor all the same; a child calls execve(2) only once, so the children are counted
// in the parent.
// TORVA_FAULT is "CALL:N:ERRNO"; N of 0 counts the calls into the file TORVA_FAULT_COUNT.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <string>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

struct Fault {
    std::string call;
    int when = 0;
    int error = 0;
    std::string countFile;
    pid_t tool = 0;
    int closes = 0;
    int children = 0;

    Fault() : tool(::getpid()) {
        char name[16] = "";
        if (const char* text = std::getenv("TORVA_FAULT")) {
            std::sscanf(text, "%15[^:]:%d:%d", name, &when, &error);
            call = name;
        }
        if (const char* path = std::getenv("TORVA_FAULT_COUNT")) {
            countFile = path;
        }
        // Not for the tools that the tool starts.
        ::unsetenv("TORVA_FAULT");
        ::unsetenv("TORVA_FAULT_COUNT");
        ::unsetenv("LD_PRELOAD");
    }
};

// Made in time for the first call, and never destroyed: the last close comes late.
Fault& fault() {
    static Fault* const theFault = new Fault;
    return *theFault;
}

[[gnu::constructor]] void prepare() {
    fault();
}

[[gnu::destructor]] void writeCounts() {
    const Fault& counted = fault();
    if (counted.countFile.empty() || ::getpid() != counted.tool) {
        return;
    }
    if (std::FILE* file = std::fopen(counted.countFile.c_str(), "w")) {
        std::fprintf(file, "close %d\nexecve %d\n", counted.closes, counted.children);
        std::fclose(file);
    }
}

void note() {
    if (std::FILE* file = std::fopen("/run/capture/hit", "w")) {
        std::fclose(file);
    }
}

} // namespace

extern "C" int close(int fd) {
    const long result = ::syscall(SYS_close, fd);
    Fault& wanted = fault();
    if (::getpid() == wanted.tool && ++wanted.closes == wanted.when && wanted.call == "close") {
        note();
        errno = wanted.error;
        return -1;
    }
    return static_cast<int>(result);
}

extern "C" pid_t fork() {
    static const auto real = reinterpret_cast<pid_t (*)()>(::dlsym(RTLD_NEXT, "fork"));
    ++fault().children;
    return real();
}

extern "C" int execv(const char* path, char* const* arguments) {
    static const auto real =
        reinterpret_cast<int (*)(const char*, char* const*)>(::dlsym(RTLD_NEXT, "execv"));
    Fault& wanted = fault();
    if (wanted.call == "execve" && wanted.children == wanted.when) {
        wanted.when = -1; // once: the next attempt succeeds
        note();
        errno = wanted.error;
        return -1;
    }
    return real(path, arguments);
}

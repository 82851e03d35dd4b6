// What the timed programs of this folder share: the time that a piece of work takes, and
// the memory that it needs in addition. Rounds, floors and bars are in scripts/bench.
#pragma once

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <string>
#include <unistd.h>

namespace torva::bench {

/// \param work  called once
/// \return seconds that it took
template <class Work>
double secondsOf(Work work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

[[noreturn]] inline void die(const std::string& what) {
    std::fprintf(stderr, "%s\n", what.c_str());
    std::exit(1);
}

/// The peak of the resident memory since forgetPeak(), in KiB; VmHWM in proc(5).
inline long peakKb() {
    std::ifstream status("/proc/self/status");
    const std::string name = "VmHWM:";
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, name.size(), name) == 0) {
            return std::stol(line.substr(name.size()));
        }
    }
    die("no VmHWM in /proc/self/status");
}

/// From now on peakKb() counts from what is resident now; clear_refs in proc(5).
inline void forgetPeak() {
    const int file = ::open("/proc/self/clear_refs", O_WRONLY | O_CLOEXEC);
    if (file == -1 || ::write(file, "5", 1) != 1) {
        die("cannot write /proc/self/clear_refs");
    }
    ::close(file);
}

/// What the driver reads: a result of one piece of work.
inline void report(const char* name, double value) {
    std::printf("%s %.9g\n", name, value);
}

} // namespace torva::bench

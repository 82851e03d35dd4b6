// Times the start and the end of one child, alternating: a bare fork, execve and
// waitpid, process::launch with waitForExit, and a process::Pipe without callbacks.
// Prints "NAME VALUE" lines with the median seconds of each and the medians of the
// ratios of the rounds.
//
//     child_timer PROGRAM MEGABYTES DESCRIPTORS ROUNDS
//
// PROGRAM is started without arguments; this process holds that much memory, written
// to, and that many open descriptors.
#include "bench/Measure.h"
#include "torva/process/Launch.h"
#include "torva/process/Pipe.h"

#include <algorithm>
#include <exception>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <vector>

extern char** environ;

using namespace torva;

namespace {

void requireSuccess(int status) {
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        bench::die("child_timer: the program failed");
    }
}

void bareChild(const char* program) {
    char* const arguments[] = {const_cast<char*>(program), nullptr};
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::execve(program, arguments, environ);
        ::_exit(127);
    }
    int status = -1;
    if (pid == -1 || ::waitpid(pid, &status, 0) != pid) {
        bench::die("child_timer: no child");
    }
    requireSuccess(status);
}

void launchedChild(const char* program) {
    process::LaunchRequest request;
    request.program = program;
    request.arguments = {program};
    requireSuccess(process::waitForExit(process::launch(request).pid));
}

void pipedChild(const char* program) {
    process::Pipe pipe;
    pipe.addProcess(program, {program});
    pipe.launch();
    requireSuccess(pipe.status(0));
}

void openDescriptors(rlim_t count) {
    const rlimit limit = {std::max<rlim_t>(count + 64, 1024), std::max<rlim_t>(count + 64, 1024)};
    if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) {
        bench::die("child_timer: cannot raise the limit of descriptors");
    }
    for (rlim_t open = 3; open < count; ++open) {
        if (::open("/dev/null", O_RDONLY | O_CLOEXEC) == -1) {
            bench::die("child_timer: cannot open so many descriptors");
        }
    }
}

double median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

void compare(const char* program, int rounds) {
    std::vector<double> bare;
    std::vector<double> launched;
    std::vector<double> piped;
    std::vector<double> launchRatio;
    std::vector<double> pipeRatio;
    for (int round = 0; round < rounds; ++round) {
        bare.push_back(bench::secondsOf([&] { bareChild(program); }));
        launched.push_back(bench::secondsOf([&] { launchedChild(program); }));
        piped.push_back(bench::secondsOf([&] { pipedChild(program); }));
        launchRatio.push_back(launched.back() / bare.back());
        pipeRatio.push_back(piped.back() / bare.back());
    }
    bench::report("bare", median(bare));
    bench::report("launch", median(launched));
    bench::report("pipe", median(piped));
    bench::report("launch_ratio", median(launchRatio));
    bench::report("pipe_ratio", median(pipeRatio));
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        bench::die("usage: child_timer PROGRAM MEGABYTES DESCRIPTORS ROUNDS");
    }
    try {
        const std::vector<char> memory(std::stoul(argv[2]) << 20, 'm');
        openDescriptors(std::stoul(argv[3]));
        bareChild(argv[1]); // caches
        compare(argv[1], std::stoi(argv[4]));
        return memory.empty() ? 1 : 0; // in use to the end
    } catch (const std::exception& error) {
        bench::die(std::string("child_timer: ") + error.what());
    }
}

// torva-postfixctl: checks the host, previews a run of torva-postfix-setup, does it with a
// backup, rolls it back.
#include "ctl/verbs/CommandLine.h"
#include "ctl/verbs/Failure.h"
#include "ctl/verbs/Verbs.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using torva::ctl::Call;

/// A reader that is gone must not end us half-way. A handler and not SIG_IGN, which
/// children would inherit.
void doNothing(int) {}

/// The same environment for every caller: descriptors 0 to 2 open, messages in English, the
/// usual PATH and umask.
void makeWorldSane() {
    // open() takes the lowest free number, so going upwards fills exactly the gaps.
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (::fcntl(fd, F_GETFD) == -1 && errno == EBADF) {
            static_cast<void>(::open("/dev/null", fd == STDIN_FILENO ? O_RDONLY : O_WRONLY));
        }
    }
    std::signal(SIGCHLD, SIG_DFL);
    struct sigaction action {};
    action.sa_handler = &doNothing;
    ::sigaction(SIGPIPE, &action, nullptr);
    ::setenv("PATH", "/usr/local/sbin:/usr/sbin:/sbin:/usr/local/bin:/usr/bin:/bin", 1);
    ::setenv("LC_ALL", "C", 1);
    ::umask(022);
}

struct Verb {
    const char* name;
    int (*perform)(Call&);
};

const std::array<Verb, 6> verbs{{{"check", &torva::ctl::check},
                                 {"preview", &torva::ctl::preview},
                                 {"apply", &torva::ctl::apply},
                                 {"diff", &torva::ctl::diff},
                                 {"rollback", &torva::ctl::rollback},
                                 {"backups", &torva::ctl::backups}}};

int perform(Call& call) {
    if (!call.request.inside.empty()) {
        return torva::ctl::previewInside(call);
    }
    for (const Verb& verb : verbs) {
        if (call.request.verb == verb.name) {
            return verb.perform(call);
        }
    }
    return 1;
}

int performAsRoot(Call& call) {
    const bool isRoot = ::geteuid() == 0;
    if (!isRoot && call.request.verb != "check") {
        torva::ctl::complain(call.request.verb + " must run as root");
        return torva::ctl::statusOfFailure(call.request.verb);
    }
    if (isRoot && call.request.inside.empty()) {
        torva::ctl::noteUnfinished(call.report);
    }
    return perform(call);
}

int performReporting(Call& call) {
    try {
        return performAsRoot(call);
    } catch (const torva::ctl::Failure& failure) {
        call.report.finding(failure.finding());
    } catch (const std::exception& error) {
        torva::ctl::complain(error.what());
    }
    return torva::ctl::statusOfFailure(call.request.verb);
}

/// The exit status of a verb of which some output is lost: a verb that only tells has failed.
/// That of apply and rollback tells what they have done to the host.
int statusOfLoss(const Call& call, int status) {
    torva::ctl::complain(std::string("standard output: ") + std::strerror(call.report.lostBy()));
    const bool changesHost = call.request.verb == "apply" || call.request.verb == "rollback";
    return changesHost ? status : torva::ctl::statusOfFailure(call.request.verb);
}

} // namespace

int main(int count, char** arguments) {
    makeWorldSane();
    torva::ctl::Request request = torva::ctl::readCommandLine(count, arguments);
    if (request.verb.empty()) {
        return request.status;
    }
    if (!request.keep.empty() && request.keep[0] != '/') {
        char directory[4096];
        request.keep =
            std::string(::getcwd(directory, sizeof(directory)) == nullptr ? "" : directory) + "/" +
            request.keep;
    }
    // Relative paths in main.cf begin here, for the run.
    static_cast<void>(::chdir("/"));
    const torva::ctl::OwnPrograms programs = torva::ctl::ownPrograms(arguments[0]);
    torva::ctl::Report report(request.verb, request.json);
    Call call{request, programs, report};
    const int status = performReporting(call);
    return report.lostBy() == 0 ? status : statusOfLoss(call, status);
}

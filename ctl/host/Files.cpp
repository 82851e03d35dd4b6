#include "ctl/host/Files.h"

#include "torva/process/Descriptor.h"
#include "torva/util/ExtendedAttributes.h"
#include "torva/util/SystemError.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <fcntl.h>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace torva::ctl {

using process::Descriptor;

namespace {

/// The number of links that the kernel follows.
constexpr int linkLimit = 40;

std::string linkTarget(const std::string& path) {
    std::string target(4096, '\0');
    const ssize_t size = ::readlink(path.c_str(), target.data(), target.size());
    target.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
    return target;
}

/// Puts the components of a path before those that are left to walk.
void pushComponents(std::deque<std::string>& components, const std::string& path) {
    std::istringstream stream(path);
    std::string component;
    std::deque<std::string> first;
    while (std::getline(stream, component, '/')) {
        if (!component.empty() && component != ".") {
            first.push_back(component);
        }
    }
    components.insert(components.begin(), first.begin(), first.end());
}

[[noreturn]] void fail(const std::string& operation) {
    throwSystemError(operation, errno);
}

} // namespace

bool exists(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0;
}

std::optional<std::string> readFile(const std::string& path) {
    // Non-blocking: opening a FIFO would wait for somebody to write to it.
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    return file ? readAll(file.get()) : std::nullopt;
}

std::optional<std::string> readAll(int fd) {
    struct stat status {};
    if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        return std::nullopt;
    }
    std::string text;
    char chunk[65536];
    for (;;) {
        const ssize_t size = ::read(fd, chunk, sizeof(chunk));
        if (size < 0 && errno != EINTR) {
            return std::nullopt;
        }
        if (size == 0) {
            return text;
        }
        text.append(chunk, size < 0 ? 0 : static_cast<std::size_t>(size));
    }
}

std::string resolved(const std::string& path) {
    std::deque<std::string> left;
    pushComponents(left, path);
    std::string result;
    int links = 0;
    while (!left.empty()) {
        const std::string component = left.front();
        left.pop_front();
        if (component == "..") {
            result.erase(result.empty() ? 0 : result.rfind('/'));
            continue;
        }
        const std::string next = result + '/' + component;
        const std::string target = links < linkLimit ? linkTarget(next) : std::string();
        if (target.empty()) {
            result = next;
            continue;
        }
        ++links;
        if (target[0] == '/') {
            result.clear();
        }
        pushComponents(left, target);
    }
    return result.empty() ? "/" : result;
}

bool isAtOrBelow(const std::string& path, const std::string& directory) {
    return !directory.empty() &&
           (path == directory || path.compare(0, directory.size() + 1, directory + "/") == 0);
}

std::string directoryOf(const std::string& path) {
    const std::string::size_type slash = path.rfind('/');
    return slash == 0 || slash == std::string::npos ? "/" : path.substr(0, slash);
}

std::string nameOf(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

void writeAll(int fd, const std::string& text) {
    const char* at = text.data();
    std::size_t left = text.size();
    while (left > 0) {
        const ssize_t written = ::write(fd, at, left);
        if (written < 0 && errno != EINTR) {
            fail("write");
        }
        if (written > 0) {
            at += written;
            left -= static_cast<std::size_t>(written);
        }
    }
}

void copyAttributes(int from, int to) {
    struct stat status {};
    if (::fstat(from, &status) != 0) {
        fail("fstat");
    }
    // The owner first: giving a file away clears special mode bits.
    if (::fchown(to, status.st_uid, status.st_gid) != 0) {
        fail("fchown");
    }
    if (::fchmod(to, status.st_mode & 07777) != 0) {
        fail("fchmod");
    }
    copyExtendedAttributes(from, to);
}

void replaceText(const std::string& path, const std::string& text) {
    const std::string target = resolved(path);
    const Descriptor old(::open(target.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!old) {
        fail("open " + target);
    }
    std::string scratch = target + ".torva-new";
    ::unlink(scratch.c_str()); // from a replacement that was killed
    Descriptor file(
        ::open(scratch.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file) {
        fail("open " + scratch);
    }
    try {
        struct stat status {};
        ::fstat(old.get(), &status);
        writeAll(file.get(), text);
        copyAttributes(old.get(), file.get());
        const timespec times[2] = {status.st_atim, status.st_mtim};
        if (::futimens(file.get(), times) != 0 || ::fsync(file.get()) != 0) {
            fail("fsync");
        }
        file.release();
        if (std::rename(scratch.c_str(), target.c_str()) != 0) {
            fail("rename " + scratch);
        }
    } catch (...) {
        ::unlink(scratch.c_str());
        throw;
    }
}

} // namespace torva::ctl

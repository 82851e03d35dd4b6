#include "torva/util/WritableByOthers.h"

#include <cstdlib>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace torva {

namespace {

bool isTrusted(const struct stat& status, bool stickyWillDo) {
    const bool ours = status.st_uid == 0 || status.st_uid == ::geteuid();
    const bool shared = (status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
    return ours && (!shared || (stickyWillDo && (status.st_mode & S_ISVTX) != 0));
}

} // namespace

std::string directoryOf(const std::string& path) {
    const std::string::size_type slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

bool writableByOthers(const std::string& directory) {
    const std::unique_ptr<char, decltype(&std::free)> real(
        ::realpath(directory.empty() ? "." : directory.c_str(), nullptr), &std::free);
    if (!real) {
        return true;
    }
    std::string path = real.get();
    struct stat status = {};
    for (bool above = false;; above = true) {
        if (::lstat(path.c_str(), &status) != 0 || !isTrusted(status, above)) {
            return true;
        }
        if (path == "/") {
            return false;
        }
        const std::string::size_type slash = path.rfind('/');
        path.resize(slash == 0 ? 1 : slash);
    }
}

} // namespace torva

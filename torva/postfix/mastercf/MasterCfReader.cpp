#include "torva/postfix/mastercf/MasterCfReader.h"

#include "torva/libc/descriptor.h"
#include "torva/postfix/mastercf/MasterCfParser.h"
#include "torva/util/PostfixError.h"
#include "torva/util/WritableByOthers.h"

#include <cerrno>
#include <cstddef>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace torva::mail::postfix {

namespace {

bool isOurs(const struct stat& status) {
    return (status.st_uid == 0 || status.st_uid == ::geteuid()) &&
           (status.st_mode & (S_IWGRP | S_IWOTH)) == 0 && status.st_nlink == 1;
}

/// An open regular file; the destructor closes it.
class OpenFile {
public:
    /// Check valid().
    OpenFile(const std::string& path, FileOwner owner) {
        const bool distrusts = owner == FileOwner::self && writableByOthers(directoryOf(path));
        // Non-blocking: opening a FIFO would wait for somebody to write to it.
        const int flags = O_RDONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC;
        fd_ = fd_above_standard(::open(path.c_str(), distrusts ? flags | O_NOFOLLOW : flags));
        valid_ = fd_ >= 0 && ::fstat(fd_, &status_) == 0 && S_ISREG(status_.st_mode) &&
                 (!distrusts || isOurs(status_));
    }
    ~OpenFile() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;

    bool valid() const { return valid_; }
    int descriptor() const { return fd_; }
    std::size_t size() const { return static_cast<std::size_t>(status_.st_size); }

private:
    int fd_;
    bool valid_;
    struct stat status_ {};
};

/// A whole regular file, mapped.
class MappedFile {
public:
    /// Keeps no descriptor. Check valid().
    MappedFile(const std::string& path, FileOwner owner) {
        const OpenFile file(path, owner);
        if (file.valid()) {
            size_ = file.size();
            // Fails for a size of 0.
            data_ = ::mmap(nullptr, size_, PROT_READ, MAP_PRIVATE, file.descriptor(), 0);
        }
    }
    ~MappedFile() {
        if (valid()) {
            ::munmap(data_, size_);
        }
    }
    MappedFile(const MappedFile&) = delete;
    MappedFile& operator=(const MappedFile&) = delete;

    bool valid() const { return data_ != MAP_FAILED; }
    const char* begin() const { return static_cast<const char*>(data_); }
    const char* end() const { return begin() + size_; }

private:
    void* data_ = MAP_FAILED;
    std::size_t size_ = 0;
};

} // namespace

std::string MasterCfReader::read(const std::string& path, MasterCfLines& target, FileOwner owner) {
    const MappedFile file(path, owner);
    if (!file.valid()) {
        throw PostfixConfigurationError("unable to open " + path);
    }
    if (!parseMasterCf(file.begin(), file.end(), target)) {
        throw PostfixConfigurationError("unable to parse " + path);
    }
    return {file.begin(), file.end()};
}

std::optional<std::string> MasterCfReader::content(const std::string& path, FileOwner owner) {
    const OpenFile file(path, owner);
    if (!file.valid()) {
        return std::nullopt;
    }
    std::string text;
    char piece[16384];
    for (;;) {
        const ssize_t size = ::read(file.descriptor(), piece, sizeof(piece));
        if (size > 0) {
            text.append(piece, static_cast<std::size_t>(size));
        } else if (size == 0) {
            return text;
        } else if (errno != EINTR) {
            return std::nullopt;
        }
    }
}

} // namespace torva::mail::postfix

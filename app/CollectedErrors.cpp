#include "app/CollectedErrors.h"

#include "torva/util/SigpipeHold.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace torva::app {

using process::Descriptor;

namespace {

bool canLoseItsReader(int fd) {
    struct stat status {};
    return ::fstat(fd, &status) == 0 && (S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode));
}

/// Best effort, as all that is written to standard error.
void passOn(const char* text, ssize_t size) {
    while (size > 0) {
        const ssize_t written = ::write(STDERR_FILENO, text, static_cast<std::size_t>(size));
        if (written == -1 && errno != EINTR) {
            return;
        }
        if (written > 0) {
            text += written;
            size -= written;
        }
    }
}

} // namespace

CollectedErrors::CollectedErrors() noexcept {
    const int saved = errno;
    if (canLoseItsReader(STDERR_FILENO)) {
        memory_ = Descriptor(::memfd_create("standard error", MFD_CLOEXEC));
        original_ = Descriptor(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
        if (!memory_ || !original_ || ::dup2(memory_.get(), STDERR_FILENO) == -1) {
            original_.closeQuietly();
        }
    }
    errno = saved;
}

CollectedErrors::~CollectedErrors() {
    const int saved = errno;
    if (original_) {
        ::dup2(original_.get(), STDERR_FILENO);
        const SigpipeHold hold;
        char piece[4096];
        // With an offset of our own: that of the descriptor is shared with the programs.
        for (off_t at = 0;;) {
            const ssize_t size = ::pread(memory_.get(), piece, sizeof(piece), at);
            if (size <= 0) {
                break;
            }
            passOn(piece, size);
            at += size;
        }
    }
    errno = saved;
}

} // namespace torva::app

#include "torva/util/AutocleanOFStream.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace torva {

namespace {

/// std::filebuf opens files that every child would inherit, and shows its
/// descriptor to derived classes only.
class DescriptorAccess : public std::filebuf {
public:
    static int descriptor(std::filebuf& buffer) {
        return (buffer.*(&DescriptorAccess::_M_file)).fd();
    }
};

} // namespace

AutocleanOFStream::AutocleanOFStream(const std::string& file, openmode mode)
    : std::ofstream(file, mode), path(file) {
    if (is_open()) {
        const int saved_errno = errno;
        static_cast<void>(::fcntl(DescriptorAccess::descriptor(*rdbuf()), F_SETFD, FD_CLOEXEC));
        errno = saved_errno;
    }
}

AutocleanOFStream::~AutocleanOFStream() {
    const int saved_errno = errno;
    ::unlink(path.c_str());
    errno = saved_errno;
    try {
        rdbuf()->close();
    } catch (...) { // NOLINT(bugprone-empty-catch): the file is gone anyway
    }
    errno = saved_errno;
}

} // namespace torva

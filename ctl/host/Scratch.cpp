#include "ctl/host/Scratch.h"

#include "ctl/host/Files.h"
#include "torva/process/Descriptor.h"
#include "torva/util/SystemError.h"
#include "torva/util/WritableByOthers.h"

#include <boost/filesystem/operations.hpp>

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace torva::ctl {

namespace {

const char standardPlace[] = "/tmp";

/// \return its path; empty, with errno: it could not be made
std::string makeIn(const std::string& place) {
    std::string path = place + "/torva-postfixctl.XXXXXX";
    return ::mkdtemp(path.data()) == nullptr ? std::string() : path;
}

} // namespace

ScratchDirectory::ScratchDirectory() {
    const char* wanted = std::getenv("TMPDIR");
    if (wanted != nullptr && *wanted != '\0') {
        path_ = makeIn(wanted);
    }
    // su(1) leaves the TMPDIR of the user, who could put another directory in place of ours.
    if (!path_.empty() && writableByOthers(path_)) {
        ::rmdir(path_.c_str());
        path_.clear();
    }
    if (path_.empty()) {
        path_ = makeIn(standardPlace);
    }
    if (path_.empty()) {
        throwSystemError(std::string("mkdtemp in ") + standardPlace, errno);
    }
}

ScratchDirectory::~ScratchDirectory() {
    boost::system::error_code ignored;
    boost::filesystem::remove_all(path_, ignored);
}

void ScratchDirectory::write(const std::string& name, const std::string& text) const {
    const std::string path = path_ + "/" + name;
    process::Descriptor file(
        ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file) {
        throwSystemError("open " + path, errno);
    }
    writeAll(file.get(), text);
    // Postfix's programs wait if main.cf was changed in the last two seconds.
    const timespec longAgo[2] = {{1, 0}, {1, 0}};
    if (::futimens(file.get(), longAgo) != 0) {
        throwSystemError("futimens " + path, errno);
    }
    file.release();
}

} // namespace torva::ctl

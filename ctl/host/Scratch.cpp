#include "ctl/host/Scratch.h"

#include "ctl/host/Files.h"
#include "torva/process/Descriptor.h"
#include "torva/util/SystemError.h"

#include <boost/filesystem/operations.hpp>

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>

namespace torva::ctl {

ScratchDirectory::ScratchDirectory() {
    const char* base = std::getenv("TMPDIR");
    path_ =
        std::string(base == nullptr || *base == '\0' ? "/tmp" : base) + "/torva-postfixctl.XXXXXX";
    if (::mkdtemp(path_.data()) == nullptr) {
        throwSystemError("mkdtemp " + path_, errno);
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

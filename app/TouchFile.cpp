#include "app/TouchFile.h"

#include "torva/util/WritableByOthers.h"

#include <fcntl.h>
#include <unistd.h>

namespace torva::app {

void touchFile(const std::string& path) {
    int flags = O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    if (writableByOthers(directoryOf(path))) {
        flags |= O_NOFOLLOW; // a link there would have us create any file
    }
    const int fd = ::open(path.c_str(), flags, 0644);
    if (fd != -1) {
        ::close(fd);
    }
}

} // namespace torva::app

#include "app/TouchFile.h"

#include <fcntl.h>
#include <unistd.h>

namespace torva::app {

void touchFile(const std::string& path) {
    const int fd = ::open(path.c_str(),
                          O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0644);
    if (fd != -1) {
        ::close(fd);
    }
}

} // namespace torva::app

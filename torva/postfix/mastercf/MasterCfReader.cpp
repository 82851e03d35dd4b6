#include "torva/postfix/mastercf/MasterCfReader.h"

#include "torva/postfix/mastercf/MasterCfParser.h"
#include "torva/util/PostfixError.h"

#include <cstddef>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace torva::mail::postfix {

namespace {

/// The bytes of a whole regular file, in place.
class MappedFile {
public:
    /// Keeps no descriptor. Check valid().
    explicit MappedFile(const std::string& path) {
        // Non-blocking: opening a FIFO would wait for somebody to write to it.
        const int fd = ::open(path.c_str(), O_RDONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0) {
            return;
        }
        struct stat status {};
        if (::fstat(fd, &status) == 0 && S_ISREG(status.st_mode)) {
            size_ = static_cast<std::size_t>(status.st_size);
            // Fails by itself for a size of 0.
            data_ = ::mmap(nullptr, size_, PROT_READ, MAP_PRIVATE, fd, 0);
        }
        ::close(fd);
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

void MasterCfReader::read(const std::string& path, MasterCfLines& target) {
    const MappedFile file(path);
    if (!file.valid()) {
        throw PostfixConfigurationError("unable to open " + path);
    }
    if (!parseMasterCf(file.begin(), file.end(), target)) {
        throw PostfixConfigurationError("unable to parse " + path);
    }
}

} // namespace torva::mail::postfix

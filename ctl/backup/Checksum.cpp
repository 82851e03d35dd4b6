#include "ctl/backup/Snapshot.h"

#include "torva/util/SystemError.h"

#include <openssl/evp.h>

#include <cerrno>
#include <new>
#include <unistd.h>

namespace torva::ctl {

void Checksum::Release::operator()(evp_md_ctx_st* context) const noexcept {
    EVP_MD_CTX_free(context);
}

Checksum::Checksum() : context_(EVP_MD_CTX_new()) {
    if (!context_ || EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) != 1) {
        throw std::bad_alloc();
    }
}

void Checksum::add(const char* bytes, std::size_t size) {
    EVP_DigestUpdate(context_.get(), bytes, size);
}

std::string Checksum::result() {
    unsigned char bytes[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    EVP_DigestFinal_ex(context_.get(), bytes, &size);
    const char digits[] = "0123456789abcdef";
    std::string text;
    for (unsigned int at = 0; at < size; ++at) {
        text += digits[bytes[at] >> 4];
        text += digits[bytes[at] & 0x0f];
    }
    return text;
}

std::string checksumOf(int fd, std::uint64_t limit) {
    Checksum checksum;
    char chunk[65536];
    while (limit > 0) {
        const std::size_t wanted = limit < sizeof(chunk) ? limit : sizeof(chunk);
        const ssize_t size = ::read(fd, chunk, wanted);
        if (size < 0 && errno != EINTR) {
            throwSystemError("read", errno);
        }
        if (size == 0) {
            break;
        }
        const std::size_t got = size < 0 ? 0 : static_cast<std::size_t>(size);
        checksum.add(chunk, got);
        limit -= got;
    }
    return checksum.result();
}

} // namespace torva::ctl

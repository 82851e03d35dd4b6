#include "ctl/backup/Snapshot.h"

#include "torva/util/SystemError.h"

#include <openssl/evp.h>

#include <cerrno>
#include <new>
#include <unistd.h>

namespace torva::ctl {

struct Checksum::State {
    EVP_MD_CTX* context;
};

Checksum::Checksum() : state_(new State{EVP_MD_CTX_new()}) {
    if (state_->context == nullptr ||
        EVP_DigestInit_ex(state_->context, EVP_sha256(), nullptr) != 1) {
        EVP_MD_CTX_free(state_->context);
        delete state_;
        throw std::bad_alloc();
    }
}

Checksum::~Checksum() {
    EVP_MD_CTX_free(state_->context);
    delete state_;
}

void Checksum::add(const char* bytes, std::size_t size) {
    EVP_DigestUpdate(state_->context, bytes, size);
}

std::string Checksum::result() {
    unsigned char bytes[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    EVP_DigestFinal_ex(state_->context, bytes, &size);
    const char digits[] = "0123456789abcdef";
    std::string text;
    for (unsigned int at = 0; at < size; ++at) {
        text += digits[bytes[at] >> 4];
        text += digits[bytes[at] & 0x0f];
    }
    return text;
}

std::string checksumOf(int fd) {
    Checksum checksum;
    char chunk[65536];
    for (;;) {
        const ssize_t size = ::read(fd, chunk, sizeof(chunk));
        if (size < 0 && errno != EINTR) {
            throwSystemError("read", errno);
        }
        if (size == 0) {
            return checksum.result();
        }
        checksum.add(chunk, size < 0 ? 0 : static_cast<std::size_t>(size));
    }
}

} // namespace torva::ctl

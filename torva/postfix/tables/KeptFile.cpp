#include "torva/postfix/tables/KeptFile.h"

#include "torva/postfix/tables/TableFiles.h"

#include <cerrno>
#include <cstdio>
#include <unistd.h>

namespace torva::mail::postfix {

namespace {

bool isRegular(const std::string& path, struct stat& status) {
    return ::lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

bool sameFile(const struct stat& left, const struct stat& right) {
    return left.st_dev == right.st_dev && left.st_ino == right.st_ino;
}

/// Makes the temporary file's name a second hard link to the file at a path.
///
/// \param status  of the file as it was checked
bool linkTo(const std::string& path, const struct stat& status, TmpFile& name) {
    ::unlink(name.path().c_str());
    struct stat linked = {};
    if (::link(path.c_str(), name.path().c_str()) == 0) {
        if (::lstat(name.path().c_str(), &linked) == 0 && sameFile(linked, status)) {
            return true;
        }
        ::unlink(name.path().c_str()); // swapped in between
    }
    name.setAutoclean(false); // a file of that name is not ours
    return false;
}

/// Restores the kept file. If that fails, it stays where it is.
void putBack(TmpFile& kept, const std::string& path) {
    const int saved_errno = errno;
    kept.setAutoclean(false);
    static_cast<void>(std::rename(kept.path().c_str(), path.c_str()));
    errno = saved_errno;
}

} // namespace

KeptSource::KeptSource(const std::string& path) : path_(path) {
    struct stat status = {};
    if (!isRegular(path, status)) {
        return;
    }
    kept_ = std::make_unique<TmpFile>(path + ".");
    if (!linkTo(path, status, *kept_)) {
        kept_ = std::make_unique<TmpFile>(path + ".");
        copyFile(path, *kept_);
    }
}

KeptSource::~KeptSource() {
    if (kept_ && replaced_) {
        putBack(*kept_, path_);
    }
}

KeptIndex::KeptIndex(const std::string& path) : path_(resolvedSource(path)) {
    if (isRegular(path_, status_)) {
        copy_ = std::make_unique<TmpFile>(path_ + ".");
        status_ = copyFile(path_, *copy_);
    }
}

KeptIndex::~KeptIndex() {
    if (copy_ && wasTouched()) {
        putBack(*copy_, path_);
    }
}

bool KeptIndex::wasTouched() const {
    struct stat now = {};
    return !isRegular(path_, now) || !sameFile(now, status_) || now.st_size != status_.st_size ||
           now.st_mtim.tv_sec != status_.st_mtim.tv_sec ||
           now.st_mtim.tv_nsec != status_.st_mtim.tv_nsec ||
           now.st_ctim.tv_sec != status_.st_ctim.tv_sec ||
           now.st_ctim.tv_nsec != status_.st_ctim.tv_nsec;
}

} // namespace torva::mail::postfix

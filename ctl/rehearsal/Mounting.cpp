#include "ctl/rehearsal/Mounting.h"

#include "torva/process/SystemCall.h"

#include <boost/filesystem/directory.hpp>
#include <boost/filesystem/operations.hpp>

#include <cerrno>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <utility>

namespace torva::ctl::rehearsal {
namespace {

namespace fs = boost::filesystem;

// For a result of 0 or -1.
void require(int result, const std::string& operation) {
    if (result != 0) {
        throw SystemError(operation);
    }
}

// Flags that a mount keeps when it is changed or covered.
unsigned long flagsOf(const std::string& path) {
    struct statvfs status = {};
    require(::statvfs(path.c_str(), &status), "statvfs " + path);
    unsigned long flags = 0;
    for (const auto& [shown, kept] : {std::pair<unsigned long, unsigned long>(ST_NOSUID, MS_NOSUID),
                                      {ST_NODEV, MS_NODEV},
                                      {ST_NOEXEC, MS_NOEXEC}}) {
        if ((status.f_flag & shown) != 0) {
            flags |= kept;
        }
    }
    return flags;
}

void touch(const std::string& path) {
    const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    require(file < 0 ? -1 : ::close(file), "open " + path);
}

void mirrorEntry(const fs::path& entry, const std::string& to, bool fresh) {
    const std::string& from = entry.native();
    const fs::file_type type = fs::symlink_status(entry).type();
    if (type == fs::symlink_file) {
        require(::symlink(fs::read_symlink(entry).c_str(), to.c_str()), "symlink " + to);
    } else if (type == fs::directory_file) {
        makeDirectory(to);
        if (fresh) {
            copyOwnership(from, to);
        } else {
            bindMount(from, to);
        }
    } else if (type == fs::regular_file || type == fs::character_file) {
        touch(to);
        bindMount(from, to);
    }
}

} // namespace

void mountTmpfs(const std::string& dir, const std::string& options) {
    require(::mount("rehearsal", dir.c_str(), "tmpfs", 0, options.c_str()), "mount " + dir);
}

void bindMount(const std::string& from, const std::string& to) {
    require(::mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr), "mount " + to);
}

void bindAside(const std::string& from, const std::string& to) {
    struct stat status = {};
    require(::stat(from.c_str(), &status), "stat " + from);
    if (S_ISDIR(status.st_mode)) {
        makeDirectory(to);
    } else {
        touch(to);
    }
    require(::mount(from.c_str(), to.c_str(), nullptr, MS_BIND, nullptr), "mount " + to);
}

bool coverWithOverlay(const std::string& dir, const std::string& low, const std::string& scratch) {
    makeDirectory(scratch + "/upper");
    makeDirectory(scratch + "/work");
    copyOwnership(low, scratch + "/upper");
    const unsigned long flags = flagsOf(low);
    const std::string options =
        "lowerdir=" + low + ",upperdir=" + scratch + "/upper,workdir=" + scratch + "/work";
    for (const char* more : {"", ",userxattr"}) {
        if (::mount("rehearsal", dir.c_str(), "overlay", flags, (options + more).c_str()) == 0) {
            return true;
        }
    }
    return false;
}

void makeReadOnly(const std::string& path) {
    require(::mount(nullptr, path.c_str(), nullptr,
                    MS_REMOUNT | MS_BIND | MS_RDONLY | flagsOf(path), nullptr),
            "mount " + path);
}

void makeDirectory(const std::string& dir) {
    boost::system::error_code error;
    fs::create_directories(dir, error);
    if (error) {
        throw SystemError("mkdir " + dir, error.value());
    }
}

void copyOwnership(const std::string& from, const std::string& to) {
    struct stat status = {};
    require(::stat(from.c_str(), &status), "stat " + from);
    require(::chown(to.c_str(), status.st_uid, status.st_gid), "chown " + to);
    // After chown(2), which clears set-group-id.
    require(::chmod(to.c_str(), status.st_mode & 07777), "chmod " + to);
}

void mirror(const std::string& from, const std::string& to, const std::set<std::string>& fresh) {
    boost::system::error_code error;
    fs::directory_iterator entry(from, error);
    if (error) {
        throw SystemError("opendir " + from, error.value());
    }
    for (; entry != fs::directory_iterator(); ++entry) {
        const std::string name = entry->path().filename().string();
        mirrorEntry(entry->path(), to + "/" + name, fresh.count(name) != 0);
    }
}

} // namespace torva::ctl::rehearsal

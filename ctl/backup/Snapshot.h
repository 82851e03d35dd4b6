// The state of some paths of the host: contents, modes, owners, times, links, extended
// attributes (including access control lists). Reading follows no links and does not block
// on FIFOs. The contents themselves are kept by Archive.h.
#pragma once

#include "torva/process/Descriptor.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <vector>

struct evp_md_ctx_st; // of OpenSSL

namespace torva::ctl {

/// One file, directory, link or node.
struct Entry {
    mode_t mode = 0; ///< type and permissions, see inode(7); 0: nothing is there
    uid_t owner = 0;
    gid_t group = 0;
    std::int64_t seconds = 0; ///< modification time
    std::int64_t nanoseconds = 0;
    std::uint64_t size = 0;   ///< bytes of a regular file
    std::uint64_t device = 0; ///< of a device node
    std::string checksum;     ///< SHA-256 of a regular file, in hexadecimal
    std::string target;       ///< of a symbolic link
    std::map<std::string, std::string> attributes;

    bool isThere() const { return mode != 0; }
    bool isFile() const { return S_ISREG(mode); }
    bool isDirectory() const { return S_ISDIR(mode); }
    bool isLink() const { return S_ISLNK(mode); }
};

/// Whether type and contents are the same; whether everything is.
bool sameContents(const Entry& left, const Entry& right);
bool sameEntry(const Entry& left, const Entry& right);

/// By path. A requested path that does not exist has an entry of mode 0.
using Snapshot = std::map<std::string, Entry>;

/// The part of a snapshot at a path and below it.
Snapshot partOf(const Snapshot& snapshot, const std::string& path);

bool sameSnapshot(const Snapshot& left, const Snapshot& right);

/// Called for everything that a walk finds; `contents` is open for a regular file,
/// otherwise -1. A visitor that reads the contents sets the checksum.
using Visitor = std::function<void(const std::string& path, Entry& entry, int contents)>;

/// Visits everything at the paths and below, each directory before its contents.
///
/// \throws SystemError  something cannot be read, or should not be: a path that is too long
///         to be created again, a huge file that is nearly all holes
void walk(const std::vector<std::string>& paths, const Visitor& visitor);

/// \throws as walk()
Snapshot describe(const std::vector<std::string>& paths);

/// SHA-256 in hexadecimal, computed piece by piece.
class Checksum {
public:
    /// \throws std::bad_alloc
    Checksum();

    void add(const char* bytes, std::size_t size);

    /// The checksum of everything that was added; nothing more may be added.
    std::string result();

private:
    struct Release {
        void operator()(evp_md_ctx_st* context) const noexcept;
    };
    std::unique_ptr<evp_md_ctx_st, Release> context_;
};

/// The checksum of what can be read from a descriptor.
///
/// \param limit  the number of bytes after which to stop
/// \throws SystemError "read"
std::string checksumOf(int fd, std::uint64_t limit = UINT64_MAX);

} // namespace torva::ctl

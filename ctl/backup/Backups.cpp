#include "ctl/backup/Backups.h"

#include "ctl/backup/Archive.h"
#include "ctl/backup/Directory.h"
#include "ctl/host/Files.h"
#include "ctl/report/Size.h"
#include "torva/util/SystemError.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <memory>
#include <stdexcept>
#include <sys/statvfs.h>
#include <unistd.h>

namespace torva::ctl {

using process::Descriptor;

namespace {

const char partial[] = ".partial";
const char archiveName[] = "files.tar";
const char manifestName[] = "manifest";
const char leftName[] = "left";
const char sumsName[] = "sums";

std::string stampOf(std::time_t moment) {
    std::tm parts{};
    ::gmtime_r(&moment, &parts);
    char text[32];
    std::strftime(text, sizeof(text), "%Y%m%dT%H%M%SZ", &parts);
    return text;
}

/// The moment of a stamp; nothing when it is no date, or no stamp can follow it.
std::optional<std::time_t> momentOf(const std::string& stamp) {
    std::tm parts{};
    if (!isStamp(stamp) || ::strptime(stamp.c_str(), "%Y%m%dT%H%M%SZ", &parts) == nullptr) {
        return std::nullopt;
    }
    const std::time_t moment = ::timegm(&parts);
    if (stampOf(moment) != stamp || !isStamp(stampOf(moment + 1))) {
        return std::nullopt;
    }
    return moment;
}

Descriptor openAt(int directory, const std::string& name, int flags) {
    Descriptor file(::openat(directory, name.c_str(), flags | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file) {
        throwSystemError("open " + name, errno);
    }
    return file;
}

Descriptor openBackup(int directory, const std::string& stamp) {
    return openAt(directory, stamp, O_RDONLY | O_DIRECTORY);
}

/// A line for each file, in the format of sha256sum(1).
std::string sumsOf(int backup, const std::vector<std::string>& names) {
    std::string sums;
    for (const std::string& name : names) {
        const Descriptor file = openAt(backup, name, O_RDONLY | O_NONBLOCK);
        sums += checksumOf(file.get()) + "  " + name + "\n";
    }
    return sums;
}

bool holdsLine(const std::string& sums, const std::string& name) {
    return sums.find("  " + name + "\n") != std::string::npos;
}

/// Whether every file in the sums is unchanged.
bool matchesSums(int backup, const std::string& sums) {
    std::vector<std::string> names{archiveName, manifestName};
    if (holdsLine(sums, leftName)) {
        names.emplace_back(leftName);
    }
    try {
        return !sums.empty() && sumsOf(backup, names) == sums;
    } catch (const SystemError& error) {
        if (isShortage(error.code())) {
            throw;
        }
        return false;
    }
}

std::uint64_t bytesIn(int backup) {
    std::uint64_t bytes = 0;
    for (const std::string& name : namesIn(backup)) {
        struct stat status {};
        if (::fstatat(backup, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
            bytes += static_cast<std::uint64_t>(status.st_size);
        }
    }
    return bytes;
}

std::time_t timeOf(int backup, const std::string& name) {
    struct stat status {};
    if (::fstatat(backup, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        ::fstat(backup, &status);
    }
    return status.st_mtime;
}

std::string firstLine(const std::string& text) {
    return text.substr(0, text.find('\n'));
}

Backup readBackup(int directory, const std::string& stamp) {
    Backup backup;
    backup.stamp = stamp;
    const Descriptor opened(
        ::openat(directory, stamp.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    const int code = opened ? 0 : errno;
    if (code != 0 && code != ENOTDIR && code != ELOOP) {
        throwSystemError("open " + stamp, code); // it may be whole: another must not be chosen
    }
    if (code != 0) { // a file or a link: no reason to refuse the others
        backup.made = timeOf(directory, stamp);
        return backup;
    }
    backup.made = timeOf(opened.get(), manifestName);
    backup.bytes = bytesIn(opened.get());
    const std::vector<std::string> names = namesIn(opened.get());
    const std::string sums = readOwnFile(opened.get(), sumsName);
    backup.earlier = std::binary_search(names.begin(), names.end(), "tree");
    backup.whole = !backup.earlier && matchesSums(opened.get(), sums);
    backup.hasLeftState = backup.whole && holdsLine(sums, leftName);
    const std::string manifest = readOwnFile(opened.get(), manifestName);
    try {
        backup.manifest = parseManifest(manifest);
    } catch (const std::exception&) {
        backup.whole = false;
        backup.manifest.reason = firstLine(readOwnFile(opened.get(), "reason"));
    }
    return backup;
}

/// Reads the archive back: one that cannot be read is not a backup.
void requireReadable(int archive, const Snapshot& wanted) {
    std::size_t files = 0;
    readArchive(archive, [&](const std::string& path) -> ContentsConsumer {
        const auto sum = std::make_shared<Checksum>();
        return [&files, &wanted, path, sum](const char* bytes, std::size_t size) {
            sum->add(bytes, size);
            const bool isEnd = size == 0;
            if (isEnd && sum->result() == wanted.at(path).checksum) {
                ++files;
            }
        };
    });
    const auto wantedFiles = std::count_if(wanted.begin(), wanted.end(),
                                           [](const auto& one) { return one.second.isFile(); });
    if (files != static_cast<std::size_t>(wantedFiles)) {
        throw std::runtime_error("the archive does not read back");
    }
}

/// A backup that does not fit must not fill the disk before it fails: mail needs it, too.
void requireRoom(int directory, const std::vector<std::string>& paths) {
    std::uint64_t needed = 0;
    walk(paths, [&](const std::string&, const Entry& entry, int) {
        needed = entry.size > UINT64_MAX - needed ? UINT64_MAX : needed + entry.size;
    });
    struct statvfs system {};
    if (::fstatvfs(directory, &system) != 0) {
        return;
    }
    const std::uint64_t free = std::uint64_t{system.f_bavail} * system.f_frsize;
    if (needed > free) {
        throw std::runtime_error("it takes " + megabytes(needed) + ", and " + megabytes(free) +
                                 " are free");
    }
}

} // namespace

bool Backup::ofInstance(const std::string& configuration) const {
    return resolved(manifest.configuration) == resolved(configuration);
}

const char* const Backups::path = "/var/backups/torva-postfix";

Backups::Backups() : directory_(openOwnDirectory(path)) {}

bool Backups::exist() {
    return exists(path);
}

std::string Backups::take(Manifest manifest) {
    removePartial();
    requireRoom(directory(), manifest.paths);
    try {
        return takePartial(std::move(manifest));
    } catch (...) {
        try {
            removePartial();
        } catch (const std::exception&) { // NOLINT(bugprone-empty-catch): the next call does it
        }
        throw;
    }
}

std::string Backups::takePartial(Manifest manifest) {
    if (::mkdirat(directory(), partial, 0700) != 0) {
        throwSystemError(std::string("mkdir ") + path + "/" + partial, errno);
    }
    const Descriptor backup = openBackup(directory(), partial);
    {
        Descriptor archive = openAt(backup.get(), archiveName, O_RDWR | O_CREAT | O_EXCL);
        manifest.entries = writeArchive(archive.get(), manifest.paths);
        requireReadable(archive.get(), manifest.entries);
        if (::fsync(archive.get()) != 0) {
            throwSystemError("fsync", errno);
        }
        archive.release();
    }
    writeOwnFile(backup.get(), manifestName, textOf(manifest));
    writeOwnFile(backup.get(), sumsName, sumsOf(backup.get(), {archiveName, manifestName}));
    if (!sameSnapshot(describe(manifest.paths), manifest.entries)) {
        throw std::runtime_error("somebody changed a file meanwhile");
    }
    for (;;) {
        std::string stamp = stampAfter(namesIn(directory()), std::time(nullptr));
        if (::renameat2(directory(), partial, directory(), stamp.c_str(), RENAME_NOREPLACE) == 0) {
            ::fsync(directory());
            return stamp;
        }
        if (errno != EEXIST) {
            throwSystemError("rename " + stamp, errno);
        }
        ::usleep(50000); // somebody has just made something of this name
    }
}

std::vector<Backup> Backups::list() const {
    std::vector<Backup> backups;
    for (const std::string& name : namesIn(directory())) {
        if (isStamp(name)) {
            backups.push_back(readBackup(directory(), name));
        }
    }
    return backups;
}

std::optional<Backup> Backups::find(const std::string& stamp) const {
    const std::vector<std::string> names = namesIn(directory());
    if (!isStamp(stamp) || !std::binary_search(names.begin(), names.end(), stamp)) {
        return std::nullopt;
    }
    return readBackup(directory(), stamp);
}

std::vector<Backup> Backups::listOf(const std::string& configuration) const {
    std::vector<Backup> backups = list();
    const auto isOther = [&](const Backup& one) { return !one.ofInstance(configuration); };
    backups.erase(std::remove_if(backups.begin(), backups.end(), isOther), backups.end());
    return backups;
}

std::optional<Backup> Backups::beforeNewestRow(const std::string& configuration) const {
    std::optional<Backup> found;
    const std::vector<Backup> backups = listOf(configuration);
    for (auto backup = backups.rbegin(); backup != backups.rend(); ++backup) {
        if (backup->ofApply()) {
            found = *backup;
            if (!backup->manifest.configured) {
                break;
            }
        }
    }
    return found;
}

std::optional<Backup> Backups::newestWithLeftState(const std::string& configuration) const {
    const std::vector<Backup> backups = listOf(configuration);
    const auto found = std::find_if(backups.rbegin(), backups.rend(), [](const Backup& one) {
        return one.ofApply() && one.hasLeftState;
    });
    return found == backups.rend() ? std::nullopt : std::optional<Backup>(*found);
}

void Backups::keepLeftState(const std::string& stamp, const LeftState& state) {
    const Descriptor backup = openBackup(directory(), stamp);
    writeOwnFile(backup.get(), leftName, textOf(state));
    // If the call ends here, nothing is stored, and the backup is still whole.
    writeOwnFile(backup.get(), sumsName,
                 sumsOf(backup.get(), {archiveName, manifestName, leftName}));
}

LeftState Backups::leftState(const std::string& stamp) const {
    const Descriptor backup = openBackup(directory(), stamp);
    return parseLeftState(readOwnFile(backup.get(), leftName));
}

Descriptor Backups::openArchive(const std::string& stamp) const {
    const Descriptor backup = openBackup(directory(), stamp);
    return openAt(backup.get(), archiveName, O_RDONLY | O_NONBLOCK);
}

void Backups::remove(const std::string& stamp) {
    removeAll(directory(), stamp);
    ::fsync(directory());
}

void Backups::removePartial() {
    removeAll(directory(), partial);
}

std::string stampAfter(const std::vector<std::string>& names, std::time_t now) {
    std::time_t moment = now;
    for (const std::string& name : names) {
        if (const std::optional<std::time_t> taken = momentOf(name)) {
            moment = std::max(moment, *taken + 1);
        }
    }
    return stampOf(moment);
}

bool isStamp(const std::string& text) {
    std::string form = text;
    for (char& c : form) {
        c = c >= '0' && c <= '9' ? '9' : c;
    }
    // All digits have become 9, so the form has only digits, T and Z.
    return form == "99999999T999999Z";
}

} // namespace torva::ctl

#include "ctl/backup/Restore.h"

#include "ctl/backup/Archive.h"
#include "ctl/backup/Directory.h"
#include "ctl/backup/Replacement.h"
#include "ctl/host/Files.h"
#include "torva/util/SystemError.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <stdexcept>
#include <unistd.h>

namespace torva::ctl {

using process::Descriptor;

namespace {

/// Writes the contents of all replacements, in one pass through the archive.
void fillReplacements(int archive, std::vector<std::unique_ptr<Replacement>>& replacements) {
    readArchive(archive, [&](const std::string& path) -> ContentsConsumer {
        for (const auto& replacement : replacements) {
            if (replacement->holds(path)) {
                return replacement->contentsOf(path);
            }
        }
        return ContentsConsumer();
    });
}

/// What a path is now; nothing when that cannot be read: where another account may write, it
/// must not be able to prevent the restoration.
std::optional<Snapshot> describedNow(const std::string& path) {
    try {
        return describe({path});
    } catch (const SystemError&) {
        return std::nullopt;
    }
}

/// Whether a directory is gone, or has become a link: aliases may be in one of another
/// account. All other paths are restored nevertheless.
bool isOutOfReach(const std::string& directory) {
    const Descriptor opened(
        ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    return !opened && (errno == ENOENT || errno == ENOTDIR || errno == ELOOP);
}

constexpr std::size_t scratchLetters = 6; ///< at the end of a name of mkstemp(3)

/// The directories that Postfix has in the queue directory, see "postfix set-permissions", and
/// those of its chroot.
const char* const queueDirectories[] = {"active",  "bounce", "corrupt",  "defer",    "deferred",
                                        "flush",   "hold",   "incoming", "maildrop", "pid",
                                        "private", "public", "saved",    "trace",    "dev",
                                        "etc",     "lib",    "usr",      "var"};

/// Whether this can be a file that a run made while it wrote master.cf, after the backup.
///
/// \param made  the time of the backup
bool isAsRunsMakeIt(const struct stat& status, std::time_t made) {
    const mode_t access = status.st_mode & 07777;
    return S_ISREG(status.st_mode) && status.st_uid == ::geteuid() && status.st_nlink == 1 &&
           // The second when it is written: it only has to be renamed then.
           (access == 0600 || access == 0644) && status.st_mtime >= made && status.st_ctime >= made;
}

/// Moves a temporary file of a killed run into the backup.
///
/// \return false: it is no such file, and stays
bool setAside(int configuration, const std::string& name, int backup, std::time_t made) {
    const Descriptor file(
        ::openat(configuration, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0 || !isAsRunsMakeIt(status, made)) {
        return false;
    }
    const std::optional<std::string> text = readAll(file.get());
    if (!text) {
        return false;
    }
    writeOwnFile(backup, "set-aside." + name, *text);
    removeAll(configuration, name);
    return true;
}

bool wasPresent(const Backup& backup, const std::string& path) {
    const auto& present = backup.manifest.present;
    return std::find(present.begin(), present.end(), path) != present.end();
}

} // namespace

void restore(const Backups& backups, const Backup& backup) {
    const Snapshot& wanted = backup.manifest.entries;
    std::vector<std::unique_ptr<Replacement>> replacements;
    std::string outOfReach;
    for (const std::string& path : backup.manifest.paths) {
        const Snapshot then = partOf(wanted, path);
        if (isOutOfReach(directoryOf(path))) {
            outOfReach = then.at(path).isThere() ? path : outOfReach;
            continue;
        }
        removeReplacement(path); // from a restoration that was killed
        const std::optional<Snapshot> now = describedNow(path);
        if (!now ||
            (!sameSnapshot(*now, then) && !correctInPlace(path, now->at(path), then.at(path)))) {
            replacements.push_back(std::make_unique<Replacement>(path, then));
        }
    }
    fillReplacements(backups.openArchive(backup.stamp).get(), replacements);
    for (const auto& replacement : replacements) {
        replacement->complete();
    }
    for (const auto& replacement : replacements) {
        replacement->moveIntoPlace();
    }
    for (const auto& replacement : replacements) {
        replacement->removeOld();
    }
    if (!outOfReach.empty()) {
        throw std::runtime_error(directoryOf(outOfReach) + " is not a directory any more");
    }
    if (!matchesHost(backup)) {
        throw std::runtime_error("it is not what the backup says");
    }
}

ScratchName judgeScratchName(const std::string& name, const std::string& other) {
    const std::string prefix = other + ".";
    if (name.size() != prefix.size() + scratchLetters || name.compare(0, prefix.size(), prefix)) {
        return ScratchName::no;
    }
    const std::string letters = name.substr(prefix.size());
    const auto all = [&](bool (*isOne)(char)) {
        return std::all_of(letters.begin(), letters.end(), isOne);
    };
    const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
    const auto isSmall = [](char c) { return c >= 'a' && c <= 'z'; };
    const auto isCapital = [](char c) { return c >= 'A' && c <= 'Z'; };
    const bool isRandom = std::all_of(letters.begin(), letters.end(), [=](char c) {
        return isDigit(c) || isSmall(c) || isCapital(c);
    });
    if (!isRandom || all(isDigit) || all(isSmall) || all(isCapital)) {
        return ScratchName::no;
    }
    // People begin words with a capital, join them ("preTLS"), and put a number behind them.
    const bool hasSmall = std::any_of(letters.begin(), letters.end(), isSmall);
    const bool hasInnerCapital = std::any_of(letters.begin() + 1, letters.end(), isCapital);
    const auto digit = std::find_if(letters.begin(), letters.end(), isDigit);
    const bool hasInnerDigit = !std::all_of(digit, letters.end(), isDigit);
    return hasSmall && hasInnerCapital && hasInnerDigit ? ScratchName::likely
                                                        : ScratchName::possible;
}

std::vector<std::string> setScratchAside(const Backups& backups, const Backup& backup) {
    const std::string& configuration = backup.manifest.configuration;
    const Descriptor kept(::openat(backups.directory(), backup.stamp.c_str(),
                                   O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    const Descriptor directory(::open(configuration.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!kept || !directory) {
        throwSystemError("open " + configuration, errno);
    }
    std::vector<std::string> uncertain;
    for (const std::string& name : namesIn(directory.get())) {
        const ScratchName judged = judgeScratchName(name, "master.cf");
        if (judged != ScratchName::no && !wasPresent(backup, configuration + "/" + name) &&
            setAside(directory.get(), name, kept.get(), backup.made) &&
            judged == ScratchName::possible) {
            uncertain.push_back(name);
        }
    }
    return uncertain;
}

void removeQueueDirectories(const Backup& backup) {
    const Descriptor queue(
        ::open(backup.manifest.queue.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!queue) {
        return;
    }
    for (const char* name : queueDirectories) {
        if (!wasPresent(backup, backup.manifest.queue + "/" + name)) {
            // Fails, as intended, unless it is an empty directory.
            static_cast<void>(::unlinkat(queue.get(), name, AT_REMOVEDIR));
        }
    }
}

bool matchesHost(const Backup& backup) {
    return sameSnapshot(describe(backup.manifest.paths), backup.manifest.entries);
}

} // namespace torva::ctl

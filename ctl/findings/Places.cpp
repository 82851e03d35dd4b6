#include "ctl/backup/Backups.h"
#include "ctl/backup/Snapshot.h"
#include "ctl/findings/HostFindings.h"
#include "ctl/host/Files.h"
#include "ctl/host/Mounts.h"
#include "ctl/host/PanelRun.h"
#include "ctl/host/TouchedPaths.h"
#include "ctl/report/Size.h"
#include "torva/util/SystemError.h"

#include <algorithm>
#include <cstdint>
#include <set>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace torva::ctl {

namespace {

constexpr std::uint64_t margin = 1048576; ///< bytes for files that a run creates
constexpr std::uint64_t marginOfInodes = 100;

/// The space that a copy of the files needs.
struct Need {
    std::uint64_t bytes = margin;
    std::uint64_t inodes = marginOfInodes;
};

/// \throws SystemError  something cannot be read
Need needOf(const Postfix& postfix) {
    Need need;
    walk(touchedPaths(postfix), [&](const std::string&, const Entry& entry, int) {
        need.bytes += entry.size;
        ++need.inodes;
    });
    return need;
}

/// The path itself, or the nearest parent directory that exists.
std::string nearest(std::string path) {
    while (!exists(path)) {
        path = directoryOf(path);
    }
    return path;
}

void findRoomIn(const std::string& place, const Need& need, std::string& told, Findings& findings) {
    struct statvfs system {};
    if (::statvfs(nearest(place).c_str(), &system) != 0) {
        return;
    }
    const std::uint64_t bytes = std::uint64_t{system.f_bavail} * system.f_frsize;
    const bool countsInodes = system.f_files != 0;
    const std::string free =
        megabytes(bytes) +
        (countsInodes ? ", " + std::to_string(system.f_favail) + " inodes" : std::string());
    if (bytes < need.bytes || (countsInodes && system.f_favail < need.inodes)) {
        findings.stop("room", place + " has " + free + " free: too little for a copy of the files",
                      "make room: " + std::to_string(need.bytes / 1024) + " kB and " +
                          std::to_string(need.inodes) + " inodes");
    }
    told += (told.empty() ? "" : "; ") + place + ": " + free;
}

/// What is mounted can be neither replaced nor removed.
void findMountPoints(const Postfix& postfix, Findings& findings) {
    std::set<std::string> leftAlone; // by the run
    for (const AliasDatabase& database : aliasDatabases(postfix)) {
        leftAlone.insert(resolved(database.path));
    }
    const std::vector<std::string> paths = touchedPaths(postfix);
    for (const std::string& point : mountPoints()) {
        const bool isTouched =
            std::any_of(paths.begin(), paths.end(),
                        [&](const std::string& path) { return isAtOrBelow(point, path); });
        if (isTouched && leftAlone.count(point) == 0) {
            findings.stop("directory", point + " is a mount point: apply could not take a run back",
                          "unmount it, or mount the directory above it");
        }
    }
}

/// The run creates the directory of the tables, unless something else has its name.
void findTablesDirectory(Findings& findings) {
    struct stat status {};
    const bool isNamed = ::lstat(tablesDirectory, &status) == 0;
    const bool isDirectory = ::stat(tablesDirectory, &status) == 0 && S_ISDIR(status.st_mode);
    if (isNamed && !isDirectory) {
        findings.stop("directory",
                      std::string(tablesDirectory) + " is not a directory: the run would end",
                      std::string("rm ") + tablesDirectory);
    }
}

/// The run replaces whatever has the name of a table by a file, but for a directory.
void findTables(Findings& findings) {
    for (const std::string& name : tableNames()) {
        const std::string path = std::string(tablesDirectory) + "/" + name;
        struct stat status {};
        if (::lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
            findings.stop("directory", path + " is a directory, not a table: the run would end",
                          "mv " + path + " " + path + ".moved");
        }
    }
}

bool isWritable(const std::string& path) {
    return ::access(nearest(path).c_str(), W_OK) == 0;
}

} // namespace

void findPlaces(const Host& host, Findings& findings) {
    const Postfix& postfix = host.postfix;
    for (const std::string& path :
         {postfix.directory, std::string("/var/spool/postfix"), std::string(Backups::path)}) {
        if (!isWritable(path)) {
            findings.stop("directory", path + " cannot be written",
                          "put it on a file system that is not read-only");
        }
    }
    findTablesDirectory(findings);
    findTables(findings);
    findMountPoints(postfix, findings);
    findings.fine("directory", "Postfix's directories can be written");
    Need need;
    try {
        need = needOf(postfix);
    } catch (const SystemError& error) {
        findings.stop("directory", std::string("a backup cannot be made: ") + error.what(),
                      "make it readable");
        return;
    }
    std::string told;
    for (const std::string& place :
         {std::string(Backups::path), std::string(tablesDirectory), postfix.directory}) {
        findRoomIn(place, need, told, findings);
    }
    findings.fine("room", "free in " + told);
}

} // namespace torva::ctl

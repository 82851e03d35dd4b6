#include "ctl/rehearsal/InnerWorld.h"

#include "ctl/rehearsal/MountTable.h"
#include "ctl/rehearsal/Mounting.h"
#include "torva/util/SystemError.h"

#include <boost/filesystem/directory.hpp>
#include <boost/filesystem/operations.hpp>

#include <cerrno>
#include <fstream>
#include <set>
#include <sstream>
#include <sys/mount.h>
#include <vector>

namespace torva::ctl::rehearsal {
namespace {

namespace fs = boost::filesystem;

// It exists in every private world, and is covered again at the end.
const char* const scratchPlace = "/dev/shm";

// Already private, so that changes to them are harmless.
const std::set<std::string> privateAlready = {"/etc", "/run", "/usr", "/var"};

// The directories that Postfix itself creates and fills in its queue directory. Files are
// moved between them by rename(2), so they must be on one file system.
const std::set<std::string> queueDirectories = {
    "active",   "bounce",   "corrupt", "defer",   "deferred", "flush", "hold",
    "incoming", "maildrop", "pid",     "private", "public",   "saved", "trace"};

std::vector<std::string> topLevelDirectories() {
    std::vector<std::string> names;
    for (fs::directory_iterator entry("/"); entry != fs::directory_iterator(); ++entry) {
        if (fs::symlink_status(*entry).type() == fs::directory_file) {
            names.push_back(entry->path().filename().string());
        }
    }
    return names;
}

// A directory to cover, and another path to its contents.
struct Place {
    std::string path;
    std::string scratch;

    std::string low() const { return scratch + "/low"; }
};

// All of them before the first is covered, which hides the mounts below it.
std::vector<Place> holdAside(const std::vector<std::string>& paths, const std::string& scratch) {
    std::vector<Place> places;
    for (const std::string& path : paths) {
        // The mount table also contains mounts that another one has covered.
        if (!fs::exists(path)) {
            continue;
        }
        places.push_back({path, scratch + "/cover/" + std::to_string(places.size())});
        makeDirectory(places.back().scratch);
        bindAside(path, places.back().low());
    }
    return places;
}

void cover(const Place& place) {
    if (fs::is_directory(place.low()) && coverWithOverlay(place.path, place.low(), place.scratch)) {
        return;
    }
    // Its parent may have been covered, so it must always be mounted again.
    bindMount(place.low(), place.path);
    if (privateAlready.count(place.path) == 0) {
        makeReadOnly(place.path);
    }
}

std::vector<MountPoint> currentMounts() {
    std::ifstream file("/proc/self/mountinfo");
    std::ostringstream text;
    text << file.rdbuf();
    return parseMountInfo(text.str());
}

} // namespace

std::string beginInnerWorld() {
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        throw SystemError("mount /");
    }
    mountTmpfs(scratchPlace, "mode=1777");
    std::string scratch = std::string(scratchPlace) + "/rehearsal";
    makeDirectory(scratch);
    return scratch;
}

void coverHost(const std::string& scratch) {
    const std::vector<std::string> paths = placesToCover(currentMounts(), topLevelDirectories());
    for (const Place& place : holdAside(paths, scratch)) {
        cover(place);
    }
    makeReadOnly("/");
}

void emptyQueue(const std::string& queueDirectory, const std::string& scratch) {
    const std::string fresh = scratch + "/queue";
    makeDirectory(fresh);
    copyOwnership(queueDirectory, fresh);
    mirror(queueDirectory, fresh, queueDirectories);
    bindMount(fresh, queueDirectory);
}

void emptyMailSpool(const std::string& spoolDirectory, const std::string& scratch) {
    if (!fs::is_directory(spoolDirectory)) {
        return;
    }
    const std::string fresh = scratch + "/spool";
    makeDirectory(fresh);
    copyOwnership(spoolDirectory, fresh);
    bindMount(fresh, spoolDirectory);
}

void replaceDevices(const std::string& logSocket, const std::string& scratch) {
    const std::string fresh = scratch + "/dev";
    makeDirectory(fresh);
    copyOwnership("/dev", fresh);
    mirror("/dev", fresh, {"shm"});
    if (::mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0) {
        throw SystemError("mount /proc");
    }
    bindAside(logSocket, fresh + "/log");
    bindMount(fresh, "/dev");
}

} // namespace torva::ctl::rehearsal

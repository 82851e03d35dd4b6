#include "ctl/rehearsal/MountTable.h"

#include <algorithm>
#include <set>
#include <sstream>

namespace torva::ctl::rehearsal {
namespace {

bool isOctal(char letter) {
    return letter >= '0' && letter <= '7';
}

// The kernel writes a blank as \040, and so on.
std::string unescaped(const std::string& text) {
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 3 < text.size() && isOctal(text[i + 1]) &&
            isOctal(text[i + 2]) && isOctal(text[i + 3])) {
            result += static_cast<char>((text[i + 1] - '0') * 64 + (text[i + 2] - '0') * 8 +
                                        (text[i + 3] - '0'));
            i += 3;
        } else {
            result += text[i];
        }
    }
    return result;
}

bool isWindowOnTheKernel(const std::string& type) {
    static const std::set<std::string> windows = {
        "autofs", "binfmt_misc", "bpf",        "cgroup",    "cgroup2", "configfs", "debugfs",
        "devpts", "efivarfs",    "fusectl",    "hugetlbfs", "mqueue",  "nsfs",     "proc",
        "pstore", "rpc_pipefs",  "securityfs", "sysfs",     "tracefs"};
    return windows.count(type) != 0;
}

bool isKernelsOwn(const std::string& name) {
    return name == "dev" || name == "proc" || name == "sys";
}

// "/home/a/b" gives "home".
std::string firstName(const std::string& path) {
    return path.substr(1, path.find('/', 1) - 1);
}

} // namespace

std::vector<MountPoint> parseMountInfo(const std::string& text) {
    std::vector<MountPoint> mounts;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream head(line);
        std::string id;
        std::string parent;
        std::string device;
        std::string root;
        std::string path;
        const std::size_t mark = line.find(" - ");
        if (!(head >> id >> parent >> device >> root >> path) || mark == std::string::npos ||
            path[0] != '/') {
            continue;
        }
        const std::string tail = line.substr(mark + 3);
        mounts.push_back({unescaped(path), tail.substr(0, tail.find(' '))});
    }
    return mounts;
}

bool areMountPoints(const std::vector<MountPoint>& mounts, const std::vector<std::string>& paths) {
    return std::all_of(paths.begin(), paths.end(), [&mounts](const std::string& path) {
        return std::any_of(mounts.begin(), mounts.end(),
                           [&path](const MountPoint& mount) { return mount.path == path; });
    });
}

std::vector<std::string> placesToCover(const std::vector<MountPoint>& mounts,
                                       const std::vector<std::string>& topLevel) {
    std::set<std::string> names;
    std::set<std::string> places;
    for (const std::string& name : topLevel) {
        if (!isKernelsOwn(name)) {
            names.insert(name);
            places.insert("/" + name);
        }
    }
    for (const MountPoint& mount : mounts) {
        if (names.count(firstName(mount.path)) != 0 && !isWindowOnTheKernel(mount.type)) {
            places.insert(mount.path);
        }
    }
    // In byte order, "/a" comes before everything that begins with "/a/".
    return {places.begin(), places.end()};
}

} // namespace torva::ctl::rehearsal

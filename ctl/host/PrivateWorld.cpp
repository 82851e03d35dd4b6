#include "ctl/host/PrivateWorld.h"

#include "ctl/host/Files.h"
#include "ctl/host/Mounts.h"
#include "ctl/host/Program.h"
#include "ctl/host/TouchedPaths.h"
#include "torva/process/Descriptor.h"

#include <boost/algorithm/string/trim.hpp>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/utsname.h>
#include <unistd.h>

namespace torva::ctl {

namespace {

/// Directories that scripts/sandbox has made private, and file systems of the kernel.
const std::array<std::string, 7> privateDirectories{"/etc", "/var",  "/usr", "/run",
                                                    "/dev", "/proc", "/sys"};

bool isPrivate(const std::string& path) {
    return std::any_of(privateDirectories.begin(), privateDirectories.end(),
                       [&](const std::string& directory) { return isAtOrBelow(path, directory); });
}

bool isDirectory(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

void makeLike(const std::string& model, const std::string& path) {
    struct stat status {};
    if (::mkdir(path.c_str(), 0700) != 0 || ::stat(model.c_str(), &status) != 0 ||
        ::chown(path.c_str(), status.st_uid, status.st_gid) != 0 ||
        ::chmod(path.c_str(), status.st_mode & 07777) != 0) {
        throw std::runtime_error(path + ": " + std::strerror(errno));
    }
}

/// Mounts a writable layer on a directory; changes vanish with the world.
void coverWithOverlay(const std::string& directory, const std::string& layer) {
    ::mkdir("/run/tmp/over", 0700);
    ::mkdir(layer.c_str(), 0700);
    makeLike(directory, layer + "/upper");
    ::mkdir((layer + "/work").c_str(), 0700);
    const std::string options =
        "lowerdir=" + directory + ",upperdir=" + layer + "/upper,workdir=" + layer + "/work";
    if (::mount("overlay", directory.c_str(), "overlay", 0, options.c_str()) != 0 &&
        ::mount("overlay", directory.c_str(), "overlay", 0, (options + ",userxattr").c_str()) !=
            0) {
        throw std::runtime_error(directory + " cannot be made private: " + std::strerror(errno));
    }
}

/// The flags of a mount, which a remount must repeat.
unsigned long flagsOf(const std::string& point) {
    static const std::array<std::pair<unsigned long, unsigned long>, 6> pairs{
        {{ST_NOSUID, MS_NOSUID},
         {ST_NODEV, MS_NODEV},
         {ST_NOEXEC, MS_NOEXEC},
         {ST_NOATIME, MS_NOATIME},
         {ST_NODIRATIME, MS_NODIRATIME},
         {ST_RELATIME, MS_RELATIME}}};
    struct statvfs system {};
    unsigned long flags = 0;
    if (::statvfs(point.c_str(), &system) == 0) {
        for (const auto& [told, wanted] : pairs) {
            flags |= (system.f_flag & told) != 0 ? wanted : 0;
        }
    }
    return flags;
}

void makeReadOnly(const std::string& point) {
    const unsigned long flags = MS_REMOUNT | MS_BIND | MS_RDONLY | flagsOf(point);
    if (::mount(nullptr, point.c_str(), nullptr, flags, nullptr) != 0 && errno != EINVAL &&
        errno != ENOENT) {
        throw std::runtime_error(point + " cannot be made read-only: " + std::strerror(errno));
    }
}

std::string firstLineOf(const ToolResult& result) {
    return boost::algorithm::trim_copy(result.output.substr(0, result.output.find('\n')));
}

bool makeInterface(const std::string& name, int number) {
    return run({"ip", "link", "show", name}).succeeded() ||
           run({"ip", "link", "add", name, "type", "dummy"}).succeeded() ||
           run({"ip", "link", "add", name, "type", "veth", "peer", "name",
                "peer" + std::to_string(number)})
               .succeeded();
}

bool giveAddress(const std::string& name, const std::string& address, const std::string& nodad) {
    run({"ip", "link", "set", name, "addrgenmode", "none"}); // no automatic address
    std::vector<std::string> words{"ip", "address", "add", address, "dev", name};
    if (!nodad.empty()) {
        words.push_back(nodad);
    }
    return run({"ip", "link", "set", name, "up"}).succeeded() && run(words).succeeded();
}

} // namespace

bool inPrivateWorld() {
    return std::getenv("TORVA_SANDBOX") != nullptr;
}

bool hasNamespaces() {
    const char* kind = std::getenv("TORVA_SANDBOX");
    return kind != nullptr && std::strcmp(kind, "namespaces") == 0;
}

HostNames namesOfHost() {
    HostNames names;
    utsname system{};
    ::uname(&system);
    names.node = system.nodename;
    names.full = firstLineOf(run({"hostname", "-f"}));
    std::istringstream lines(run({"ip", "-o", "address", "show"}).output);
    std::string line;
    while (std::getline(lines, line)) {
        std::istringstream fields(line);
        std::string number;
        std::string interface;
        std::string family;
        std::string address;
        fields >> number >> interface >> family >> address;
        names.addresses += interface + " " + address + (family == "inet6" ? " nodad" : "") + "\n";
    }
    return names;
}

std::vector<std::string> imitate(const HostNames& names) {
    std::ofstream hosts("/etc/hosts");
    hosts << "127.0.0.1 localhost\n";
    if (!names.full.empty()) {
        hosts << "127.0.1.1 " << names.full << " " << names.node << "\n";
    }
    hosts.close();
    std::vector<std::string> missing;
    if (!hasNamespaces()) {
        return missing;
    }
    static_cast<void>(::sethostname(names.node.data(), names.node.size()));
    run({"ip", "address", "flush", "dev", "lo"});
    std::istringstream lines(names.addresses);
    std::string line;
    int number = 0;
    while (std::getline(lines, line)) {
        std::istringstream fields(line);
        std::string interface;
        std::string address;
        std::string nodad;
        fields >> interface >> address >> nodad;
        if (!makeInterface(interface, ++number) || !giveAddress(interface, address, nodad)) {
            missing.push_back("the private copy has no " + interface + " with " + address +
                              ": mynetworks may differ");
        }
    }
    return missing;
}

void coverRest(const Postfix& postfix) {
    std::vector<std::string> covered;
    std::vector<std::string> paths = touchedPaths(postfix);
    paths.push_back(postfix.queueDirectory() + "/.");
    paths.push_back(postfix.value("data_directory") + "/.");
    for (const std::string& path : paths) {
        const std::string directory = resolved(directoryOf(path));
        const auto isCovered = [&](const std::string& one) { return isAtOrBelow(directory, one); };
        if (directory != "/" && isDirectory(directory) && !isPrivate(directory) &&
            std::none_of(covered.begin(), covered.end(), isCovered)) {
            coverWithOverlay(directory, "/run/tmp/over/" + std::to_string(covered.size()));
            covered.push_back(directory);
        }
    }
    for (const std::string& point : mountPoints()) {
        const bool isOurs = std::find(covered.begin(), covered.end(), point) != covered.end();
        if (!isPrivate(point) && !isOurs) {
            makeReadOnly(point);
        }
    }
}

} // namespace torva::ctl

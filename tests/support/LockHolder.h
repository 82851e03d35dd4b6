// Who holds a lock of the library: the lock file of a path, looked up in proc(5)'s list.
#pragma once

#include <algorithm>
#include <sstream>
#include <stdexcept>
#include <string>
#include <sys/stat.h>

namespace torva::test {

/// \param locks  content of /proc/locks at some moment
/// \param path   what was locked; its lock file is there
/// \return the number of the process that held it then; "none" when nobody did
inline std::string lockHolder(const std::string& locks, const std::string& path) {
    std::string name = path;
    std::replace(name.begin(), name.end(), '/', '_');
    struct stat status = {};
    if (::lstat(("/var/lock/files/" + name).c_str(), &status) != 0) {
        throw std::runtime_error("no lock file of " + path);
    }
    const std::string inode = ":" + std::to_string(status.st_ino) + " ";
    std::istringstream lines(locks);
    for (std::string line; std::getline(lines, line);) {
        if (line.find("FLOCK") != std::string::npos && line.find("->") == std::string::npos &&
            line.find(inode) != std::string::npos) {
            std::istringstream words(line);
            std::string word;
            for (int i = 0; i < 5; ++i) {
                words >> word;
            }
            return word;
        }
    }
    return "none";
}

} // namespace torva::test

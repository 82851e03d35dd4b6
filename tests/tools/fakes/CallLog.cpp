#include "CallLog.h"

#include "FakeHome.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <sstream>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace faketool {
namespace {

const std::string lockDirectory = "/var/lock/files/";

std::string quoted(const std::string& bytes) {
    std::string result = "\"";
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte > 0x7e || c == '"' || c == '\\') {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(byte));
            result += escape;
        } else {
            result += c;
        }
    }
    return result + "\"";
}

std::string quotedList(const std::vector<std::string>& texts) {
    std::string result = "[";
    for (const std::string& text : texts) {
        result += (result.size() > 1 ? "," : "") + quoted(text);
    }
    return result + "]";
}

// Lock files that somebody holds at this moment.
std::vector<std::string> lockedFiles() {
    std::vector<std::string> held;
    for (const std::string& name : entries(lockDirectory)) {
        const int fd = ::open((lockDirectory + name).c_str(), O_RDWR | O_CLOEXEC);
        if (fd >= 0 && ::flock(fd, LOCK_EX | LOCK_NB) != 0) {
            held.push_back(name);
        }
        if (fd >= 0) {
            ::close(fd);
        }
    }
    return held;
}

std::string statusLine(const std::string& name) {
    std::string text;
    readFile("/proc/self/status", text);
    const std::size_t at = text.find(name + ":\t");
    return at == std::string::npos ? "" : text.substr(at + name.size() + 2, 16);
}

// A file as the call found it: null, or its size, mode and age.
std::string fileState(const std::string& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) {
        return "null";
    }
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    const long age =
        (now.tv_sec - info.st_mtim.tv_sec) * 1000 + (now.tv_nsec - info.st_mtim.tv_nsec) / 1000000;
    std::ostringstream text;
    text << "{\"size\":" << info.st_size << ",\"mode\":" << (info.st_mode & 07777U)
         << ",\"age_ms\":" << age << "}";
    return text.str();
}

} // namespace

std::vector<std::string> entries(const std::string& directory) {
    std::vector<std::string> names;
    if (DIR* stream = ::opendir(directory.c_str())) {
        const std::string own = std::to_string(::dirfd(stream));
        while (const dirent* entry = ::readdir(stream)) {
            const std::string name = entry->d_name;
            if (name != "." && name != ".." && !(directory == "/proc/self/fd" && name == own)) {
                names.push_back(name);
            }
        }
        ::closedir(stream);
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string sourceOf(const std::vector<std::string>& argv) {
    const std::string& table = argv.back();
    const std::size_t colon = table.find(':');
    return colon == std::string::npos ? table : table.substr(colon + 1);
}

void record(const std::string& tool, long number, const std::vector<std::string>& argv,
            const std::string& input, const std::vector<std::string>& descriptors) {
    struct stat progress {};
    const long printed = ::stat((home + "progress").c_str(), &progress) == 0
                             ? static_cast<long>(progress.st_size)
                             : -1;
    std::ostringstream line;
    line << "{\"n\":" << number << ",\"tool\":" << quoted(tool) << ",\"argv\":" << quotedList(argv)
         << ",\"stdin\":" << quoted(input) << ",\"progress\":" << printed
         << ",\"blocked\":" << quoted(statusLine("SigBlk"))
         << ",\"ignored\":" << quoted(statusLine("SigIgn"))
         << ",\"fds\":" << quotedList(descriptors) << ",\"locked\":" << quotedList(lockedFiles())
         << ",\"main_cf\":" << fileState(configDirectory() + "/main.cf")
         << ",\"source\":" << fileState(sourceOf(argv)) << "}\n";
    const std::string text = line.str();
    const int fd = ::open((home + "log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0 || ::write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        broken("cannot log");
    }
    ::close(fd);
}

} // namespace faketool

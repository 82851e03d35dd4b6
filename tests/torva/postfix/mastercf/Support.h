// What the tests of this folder share: a directory, files, readable lines and records.
#pragma once

#include "torva/postfix/mastercf/MasterCfLines.h"
#include "torva/postfix/mastercf/MasterCfParser.h"

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace torva::mail::postfix::testing {

/// A directory that exists as long as the object.
class TempDir {
public:
    TempDir() {
        std::string name = (std::filesystem::temp_directory_path() / "mastercf.XXXXXX").string();
        if (::mkdtemp(name.data()) == nullptr) {
            throw std::runtime_error("mkdtemp " + name);
        }
        path_ = name;
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    std::string operator/(const std::string& name) const { return path_ + "/" + name; }
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

inline void fill(const std::string& path, const std::string& content) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    if (!(file << content << std::flush)) {
        throw std::runtime_error("cannot write " + path);
    }
}

inline std::string contentOfFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        throw std::runtime_error("cannot read " + path);
    }
    return {std::istreambuf_iterator<char>(file), {}};
}

/// Number of names in a directory; "/proc/self/fd" makes it a census of descriptors.
inline std::size_t entriesOf(const std::string& directory) {
    const std::filesystem::directory_iterator begin(directory);
    return static_cast<std::size_t>(std::distance(begin, std::filesystem::directory_iterator()));
}

/// Runs the body in a forked child that has none of the three standard streams open, as
/// some callers start their children.
///
/// \return the body's result; -1 when a stream is open afterwards, or on an exception
template <class Body>
int withoutStandardStreams(Body body) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        int result = -1;
        for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
            ::close(fd);
        }
        try {
            result = body();
        } catch (...) { // NOLINT(bugprone-empty-catch): the result tells
        }
        for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
            result = ::fcntl(fd, F_GETFD) == -1 ? result : -1;
        }
        ::_exit(result);
    }
    int status = 0;
    return ::waitpid(pid, &status, 0) == pid && WIFEXITED(status)
               ? static_cast<signed char>(WEXITSTATUS(status))
               : -1;
}

inline std::vector<std::string> linesOf(const MasterCfLines& lines) {
    return {lines.lines().begin(), lines.lines().end()};
}

inline std::string letter(boost::logic::tribool value) {
    if (boost::logic::indeterminate(value)) {
        return "-";
    }
    return value == true ? "y" : "n";
}

/// NAME/TYPE private unpriv chroot wakeup maxproc [WORD]...; numbers as they are.
inline std::string describe(const MasterCfModule& record) {
    static const char* const types[] = {"inet", "unix", "fifo"};
    std::string text = record.name + "/" + types[static_cast<int>(record.type)] + " " +
                       letter(record.private_) + " " + letter(record.unpriv) + " " +
                       letter(record.chroot) + " " + std::to_string(record.wakeup) +
                       (record.wakeupConditional ? "?" : "") + " " +
                       std::to_string(record.maxproc) + " ";
    for (const std::string& word : record.words) {
        text += "[" + word + "]";
    }
    return text;
}

inline bool parseText(const std::string& text, MasterCfLines& target) {
    return parseMasterCf(text.data(), text.data() + text.size(), target);
}

inline bool parses(const std::string& text) {
    MasterCfLines ignored;
    return parseText(text, ignored);
}

/// The record that is parsed from the text of one service.
inline std::string recordIn(const std::string& text, const std::string& name,
                            ModuleType type = ModuleType::inet) {
    MasterCfLines lines;
    if (!parseText(text, lines)) {
        return "not accepted";
    }
    if (!lines.contains({name, type})) {
        return "no such service";
    }
    return describe(lines.record({name, type}));
}

/// The text of the exception; "nothing thrown" if there is none.
template <class Error, class Operation>
std::string messageOf(Operation operation) {
    try {
        operation();
    } catch (const Error& error) {
        return error.what();
    }
    return "nothing thrown";
}

} // namespace torva::mail::postfix::testing

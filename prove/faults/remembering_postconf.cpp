// In place of postconf in the short sweep, which asks the same questions about the same main.cf
// over and over: each question ("-h") and each change ("-e") goes to the real postconf once, and
// is answered from what that said, or wrote, from then on. What both depend on is the words of
// the command and the bytes of main.cf; everything else in the world of the sweep stays as it is.
// Whatever goes wrong here is left to the real one.
#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <iterator>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace {

const std::string real = "/usr/sbin/postconf.real";
const std::string mainCf = "/etc/postfix/main.cf";
const std::string newMainCf = mainCf + ".tmp"; // the name that postconf itself uses
const std::string memoryDir = "/run/remembered/";

std::optional<std::string> contents(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::string text(std::istreambuf_iterator<char>(in), {});
    return in.is_open() && !in.bad() ? std::optional(text) : std::nullopt;
}

bool writeFile(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text << std::flush;
    return out.good();
}

/// The words of the command and the text of main.cf, and what the real postconf made of them.
class Memory {
public:
    explicit Memory(std::string question)
        : question_(std::move(question)),
          path_(memoryDir + std::to_string(std::hash<std::string>{}(question_))) {}

    std::optional<std::string> answer() const {
        const auto record = contents(path_);
        if (!record || record->compare(0, question_.size(), question_) != 0) {
            return std::nullopt;
        }
        return record->substr(question_.size());
    }

    void keep(const std::string& answer) const {
        const std::string unfinished = path_ + "." + std::to_string(::getpid());
        if (writeFile(unfinished, question_ + answer)) {
            ::rename(unfinished.c_str(), path_.c_str());
        } else {
            ::unlink(unfinished.c_str());
        }
    }

private:
    std::string question_;
    std::string path_;
};

/// Puts TEXT in the place of main.cf, as postconf does; the modes and owner stay.
bool replaceMainCf(const std::string& text) {
    struct stat old {};
    if (::stat(mainCf.c_str(), &old) == 0 && writeFile(newMainCf, text) &&
        ::chown(newMainCf.c_str(), old.st_uid, old.st_gid) == 0 &&
        ::chmod(newMainCf.c_str(), old.st_mode & 07777) == 0 &&
        ::rename(newMainCf.c_str(), mainCf.c_str()) == 0) {
        return true;
    }
    ::unlink(newMainCf.c_str());
    return false;
}

bool print(const std::string& text) {
    return ::write(STDOUT_FILENO, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

/// Becomes the real postconf.
[[noreturn]] void ask(char** words) {
    ::execv(real.c_str(), words);
    ::_exit(127);
}

/// Runs the real postconf to its end with standard output and error in a file; returns what it
/// said, or nothing when it failed or could not be run.
std::optional<std::string> askAndListen(char** words) {
    const std::string heard = memoryDir + "heard." + std::to_string(::getpid());
    const pid_t child = ::fork();
    if (child == 0) {
        const int out = ::open(heard.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (out < 0 || ::dup2(out, STDOUT_FILENO) < 0 || ::dup2(out, STDERR_FILENO) < 0) {
            ::_exit(127);
        }
        ask(words);
    }
    int status = 1;
    const bool ended = child > 0 && ::waitpid(child, &status, 0) == child && status == 0;
    const auto said = contents(heard);
    ::unlink(heard.c_str());
    return ended ? said : std::nullopt;
}

} // namespace

int main(int count, char** words) {
    const std::string kind = count > 1 ? words[1] : "";
    const auto before = contents(mainCf);
    if ((kind != "-h" && kind != "-e") || !before) {
        ask(words);
    }
    std::string question = *before;
    for (int i = 1; i < count; ++i) {
        question += '\0';
        question += words[i];
    }
    const Memory memory(question + '\0');
    const bool changes = kind == "-e";
    if (const auto known = memory.answer()) {
        if (changes ? replaceMainCf(*known) : print(*known)) {
            return 0;
        }
        ask(words);
    }
    const auto said = askAndListen(words);
    // What warns, or fails, does so again each time.
    if (!said || said->find("postconf: ") != std::string::npos || (changes && !said->empty())) {
        ask(words);
    }
    const auto after = contents(mainCf);
    if (after) {
        memory.keep(changes ? *after : *said);
    }
    return changes || print(*said) ? 0 : 1;
}

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

/// What the real postconf printed, on each stream, and for a change the text of main.cf after it.
struct Answer {
    std::string out;
    std::string err;
    std::string text;
};

/// The words of the command and the text of main.cf, and what the real postconf made of them.
class Memory {
public:
    explicit Memory(std::string question)
        : question_(std::move(question)),
          path_(memoryDir + std::to_string(std::hash<std::string>{}(question_))) {}

    std::optional<Answer> answer() const {
        const auto asked = contents(path_ + ".question");
        auto out = contents(path_ + ".out");
        auto err = contents(path_ + ".err");
        auto text = contents(path_ + ".text");
        if (asked != question_ || !out || !err || !text) {
            return std::nullopt;
        }
        return Answer{std::move(*out), std::move(*err), std::move(*text)};
    }

    /// The question last: without it, nothing is known.
    void keep(const Answer& answer) const {
        const std::string unfinished = path_ + "." + std::to_string(::getpid());
        if (writeFile(path_ + ".out", answer.out) && writeFile(path_ + ".err", answer.err) &&
            writeFile(path_ + ".text", answer.text) && writeFile(unfinished, question_)) {
            ::rename(unfinished.c_str(), (path_ + ".question").c_str());
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

bool print(int stream, const std::string& text) {
    return ::write(stream, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

/// Becomes the real postconf.
[[noreturn]] void ask(char** words) {
    ::execv(real.c_str(), words);
    ::_exit(127);
}

bool redirect(int stream, const std::string& path) {
    const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    return file >= 0 && ::dup2(file, stream) >= 0;
}

/// Runs the real postconf to its end; returns what it printed, or nothing when it failed or could
/// not be run.
std::optional<Answer> askAndListen(char** words) {
    const std::string heard = memoryDir + "heard." + std::to_string(::getpid());
    const pid_t child = ::fork();
    if (child == 0) {
        if (!redirect(STDOUT_FILENO, heard + ".out") || !redirect(STDERR_FILENO, heard + ".err")) {
            ::_exit(127);
        }
        ask(words);
    }
    int status = 1;
    const bool ended = child > 0 && ::waitpid(child, &status, 0) == child && status == 0;
    const auto out = contents(heard + ".out");
    const auto err = contents(heard + ".err");
    ::unlink((heard + ".out").c_str());
    ::unlink((heard + ".err").c_str());
    return ended && out && err ? std::optional(Answer{*out, *err, ""}) : std::nullopt;
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
    const Memory memory(question);
    const bool changes = kind == "-e";
    auto answer = memory.answer();
    if (answer) {
        if (changes && !replaceMainCf(answer->text)) {
            ask(words);
        }
    } else {
        answer = askAndListen(words);
        const auto after = contents(mainCf);
        if (!answer || !after) {
            ask(words); // what failed does so again
        }
        answer->text = changes ? *after : "";
        memory.keep(*answer);
    }
    return print(STDERR_FILENO, answer->err) && print(STDOUT_FILENO, answer->out) ? 0 : 1;
}

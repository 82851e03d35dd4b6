// Stands in for postconf, postmap, postalias and hostname inside the sandbox: a
// copy of it under each of these names writes down how it was called and answers
// like the real program, or as a rule tells it to. Everything it needs lies below
// /run/fake; tests/run/runworld.py sets that up and reads the log.
//
//   params/NAME, defaults/NAME  what "postconf -h" and "postconf -h -d" answer, and
//                               "postconf -hx" with each $NAME replaced; "postconf -e"
//                               writes the first
//   hostname                    what "hostname -f" prints
//   rules                       one rule a line, see ruleFor()
//   log                         one JSON object a call, see record()
//   progress                    where the tool under test writes its messages
#include "CallLog.h"
#include "FakeHome.h"

#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <sstream>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using namespace faketool;

namespace {

using Fields = std::map<std::string, std::string>;

std::string decoded(const std::string& text) {
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size()) {
            result += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            result += text[i];
        }
    }
    return result;
}

// The number of this call, over all tools and for this one, both from 1.
void countCall(const std::string& tool, long& number, long& nth) {
    const int fd = ::open((home + "count").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0 || ::flock(fd, LOCK_EX) != 0) {
        broken("no /run/fake");
    }
    std::string names;
    readFile(home + "count", names);
    names += tool + "\n";
    if (::pwrite(fd, names.data(), names.size(), 0) != static_cast<ssize_t>(names.size())) {
        broken("cannot count");
    }
    ::close(fd);
    number = nth = 0;
    std::istringstream lines(names);
    for (std::string line; std::getline(lines, line);) {
        ++number;
        nth += line == tool ? 1 : 0;
    }
}

// A rule is a line of NAME=VALUE fields with a TAB between them; "%xx" in a value
// is a byte. The first rule that fits is used.
//   when:  n (number of the call), tool, nth (call of that tool),
//          args (all arguments but the program, each followed by byte 1f)
//   input: stdin=ignore (never read), stdin=close (closed at once)
//   wait:  sleep_ms; pause (until this file exists)
//   then:  stdout, stderr (texts), exit (status), signal (to die of)
//          default=1: answer as if there were no rule, after stderr and the waits
//          exec (program to become, with the arguments and the input)
Fields ruleFor(const std::string& tool, long number, long nth, const std::string& args) {
    std::string text;
    readFile(home + "rules", text);
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        Fields rule;
        std::istringstream parts(line);
        for (std::string part; std::getline(parts, part, '\t');) {
            const std::size_t at = part.find('=');
            rule[part.substr(0, at)] = decoded(part.substr(at + 1));
        }
        const auto fits = [&](const char* name, const std::string& value) {
            return rule.count(name) == 0 || rule[name] == value;
        };
        if (fits("tool", tool) && fits("n", std::to_string(number)) &&
            fits("nth", std::to_string(nth)) && fits("args", args)) {
            return rule;
        }
    }
    return {{"default", "1"}};
}

std::string drain(int fd) {
    std::string all;
    char chunk[65536];
    for (;;) {
        const ssize_t count = ::read(fd, chunk, sizeof chunk);
        if (count > 0) {
            all.append(chunk, static_cast<std::size_t>(count));
        } else if (count == 0 || errno != EINTR) {
            return all;
        }
    }
}

void say(int fd, const std::string& text) {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t count = ::write(fd, text.data() + done, text.size() - done);
        if (count < 0) {
            return;
        }
        done += static_cast<std::size_t>(count);
    }
}

std::string valueOf(const std::string& name) {
    std::string value;
    if (!readFile(home + "params/" + name, value) && !readFile(home + "defaults/" + name, value)) {
        broken("no value of " + name);
    }
    return value;
}

/// The value with every "$NAME" in it replaced, as far as tests need it.
std::string expandedValueOf(const std::string& name) {
    const std::string value = valueOf(name);
    std::string expanded;
    for (std::size_t at = 0; at < value.size();) {
        std::size_t end = at + 1;
        if (value[at] != '$') {
            expanded += value[at];
        } else {
            while (
                end < value.size() &&
                (std::isalnum(static_cast<unsigned char>(value[end])) != 0 || value[end] == '_')) {
                ++end;
            }
            expanded += expandedValueOf(value.substr(at + 1, end - at - 1));
        }
        at = end;
    }
    return expanded;
}

int answerPostconf(const std::vector<std::string>& argv) {
    const std::vector<std::string> args(argv.begin() + 1, argv.end());
    std::string value;
    if (args.size() == 2 && args[0] == "-e") {
        const std::size_t at = args[1].find('=');
        if (at == std::string::npos) {
            broken("no value");
        }
        std::ofstream(home + "params/" + args[1].substr(0, at), std::ios::binary)
            << args[1].substr(at + 1);
        // The real one replaces main.cf.
        ::utimensat(AT_FDCWD, (configDirectory() + "/main.cf").c_str(), nullptr, 0);
        return 0;
    }
    if (args.size() == 2 && args[0] == "-h") {
        value = valueOf(args[1]);
    } else if (args.size() == 2 && args[0] == "-hx") {
        value = expandedValueOf(args[1]);
    } else if (args.size() == 3 && args[0] == "-h" && args[1] == "-d") {
        if (!readFile(home + "defaults/" + args[2], value)) {
            broken("no default of " + args[2]);
        }
    } else {
        broken("unknown way to call postconf");
    }
    say(STDOUT_FILENO, value + "\n");
    return 0;
}

int answer(const std::string& tool, const std::vector<std::string>& argv) {
    if (tool == "postconf") {
        return answerPostconf(argv);
    }
    if (tool == "hostname") {
        std::string name;
        if (argv.size() != 2 || argv[1] != "-f" || !readFile(home + "hostname", name)) {
            say(STDERR_FILENO, "hostname: Name or service not known\n");
            return 1;
        }
        say(STDOUT_FILENO, name);
        return 0;
    }
    struct stat info {};
    if (::stat(sourceOf(argv).c_str(), &info) != 0) {
        say(STDERR_FILENO,
            tool + ": fatal: open " + sourceOf(argv) + ": No such file or directory\n");
        return 1;
    }
    return 0;
}

[[noreturn]] void become(const std::string& program, const std::vector<std::string>& argv,
                         const std::string& input) {
    int ends[2];
    if (input.size() > 65536 || ::pipe(ends) != 0) {
        broken("cannot hand on the input");
    }
    say(ends[1], input);
    ::close(ends[1]);
    ::dup2(ends[0], STDIN_FILENO);
    ::close(ends[0]);
    std::vector<char*> pointers;
    pointers.reserve(argv.size() + 1);
    for (const std::string& argument : argv) {
        pointers.push_back(const_cast<char*>(argument.c_str()));
    }
    pointers.push_back(nullptr);
    ::execv(program.c_str(), pointers.data());
    broken("cannot become " + program);
}

} // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> descriptors = entries("/proc/self/fd");
    const std::vector<std::string> words(argv, argv + argc);
    // The caller chooses argv[0], which is under test.
    char self[4096];
    const ssize_t length = ::readlink("/proc/self/exe", self, sizeof self);
    if (length <= 0 || words.empty()) {
        broken("cannot read its own path");
    }
    std::string tool(self, static_cast<std::size_t>(length));
    tool.erase(0, tool.rfind('/') + 1);

    long number = 0;
    long nth = 0;
    countCall(tool, number, nth);
    std::string args;
    for (std::size_t i = 1; i < words.size(); ++i) {
        args += words[i] + '\x1f';
    }
    Fields rule = ruleFor(tool, number, nth, args);

    std::string input;
    if (rule["stdin"] == "close") {
        ::close(STDIN_FILENO);
    } else if (rule["stdin"] != "ignore") {
        input = drain(STDIN_FILENO);
    }
    record(tool, number, words, input, descriptors);

    while (!rule["pause"].empty() && ::access(rule["pause"].c_str(), F_OK) != 0) {
        ::usleep(2000);
    }
    if (!rule["sleep_ms"].empty()) {
        ::usleep(static_cast<useconds_t>(std::stoul(rule["sleep_ms"]) * 1000));
    }
    if (!rule["exec"].empty()) {
        become(rule["exec"], words, input);
    }
    say(STDERR_FILENO, rule["stderr"]);
    say(STDOUT_FILENO, rule["stdout"]);
    if (rule["default"] == "1") {
        return answer(tool, words);
    }
    if (!rule["signal"].empty()) {
        const int signalNumber = std::stoi(rule["signal"]);
        std::signal(signalNumber, SIG_DFL);
        sigset_t all;
        ::sigemptyset(&all);
        ::sigprocmask(SIG_SETMASK, &all, nullptr);
        ::raise(signalNumber);
    }
    return rule["exit"].empty() ? 0 : std::stoi(rule["exit"]);
}

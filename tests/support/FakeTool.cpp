#include "support/FakeTool.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>
#include <stdexcept>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

namespace torva::test {

std::string contentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void writeFile(const std::string& path, const std::string& content) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << content;
    file.close();
    if (!file) {
        throw std::runtime_error("cannot write " + path);
    }
}

std::vector<std::string> namesIn(const std::string& directory) {
    std::vector<std::string> names;
    if (DIR* open = ::opendir(directory.c_str())) {
        while (const dirent* entry = ::readdir(open)) {
            const std::string name = entry->d_name;
            if (name != "." && name != "..") {
                names.push_back(name);
            }
        }
        ::closedir(open);
    }
    std::sort(names.begin(), names.end());
    return names;
}

FakeTool::FakeTool(const std::string& program, const std::string& script)
    : program_(program), base_() {
    if (std::getenv("TORVA_SANDBOX") == nullptr) {
        std::cerr << "not in the sandbox: " << program << " stays as it is" << std::endl;
        std::abort();
    }
    base_ = std::string(std::getenv("TMPDIR")) + "/fake-" + program.substr(program.rfind('/') + 1) +
            "-" + std::to_string(::getpid());
    forget();
    if (std::rename(program_.c_str(), (program_ + ".real").c_str()) != 0) {
        throw std::runtime_error("cannot move " + program_);
    }
    writeFile(program_, "#!/bin/sh\n"
                        "REAL=" +
                            program_ +
                            ".real\n"
                            "INPUT=" +
                            base_ +
                            ".last\n"
                            "{ for argument; do printf '[%s]' \"$argument\"; done; echo; } >> " +
                            base_ +
                            ".calls\n"
                            "cat > \"$INPUT\"\n"
                            "cat \"$INPUT\" >> " +
                            base_ + ".input\n" + script + "\n");
    ::chmod(program_.c_str(), 0755);
}

FakeTool::~FakeTool() {
    std::rename((program_ + ".real").c_str(), program_.c_str());
    ::unlink((base_ + ".calls").c_str());
    ::unlink((base_ + ".input").c_str());
    ::unlink((base_ + ".last").c_str());
}

std::vector<std::string> FakeTool::calls() const {
    std::vector<std::string> lines;
    std::ifstream file(base_ + ".calls");
    for (std::string line; std::getline(file, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::string FakeTool::input() const {
    return contentOf(base_ + ".input");
}

void FakeTool::forget() const {
    writeFile(base_ + ".calls", "");
    writeFile(base_ + ".input", "");
}

} // namespace torva::test

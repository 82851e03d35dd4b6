// Where the stand-in for Postfix's tools finds what a test has prepared.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

namespace faketool {

inline const std::string home = "/run/fake/";

/// The whole file; false, and TEXT as it was, if it cannot be opened.
inline bool readFile(const std::string& path, std::string& text) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        return false;
    }
    std::ostringstream all;
    all << file.rdbuf();
    text = all.str();
    return true;
}

/// Ends this process: the test lacks something.
[[noreturn]] inline void broken(const std::string& what) {
    // Cannot be mistaken for an answer: a test that gets this lacks something.
    std::fprintf(stderr, "faketool: fatal: %s\n", what.c_str());
    std::exit(99);
}

/// What "postconf -h config_directory" answers.
inline std::string configDirectory() {
    std::string directory;
    if (!readFile(home + "params/config_directory", directory)) {
        readFile(home + "defaults/config_directory", directory);
    }
    return directory;
}

} // namespace faketool

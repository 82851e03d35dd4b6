// A directory for the files of one test.
#pragma once

#include <boost/filesystem.hpp>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <set>
#include <stdexcept>
#include <string>

namespace torva::test {

class TempDirectory {
public:
    TempDirectory() : path_(testing::TempDir() + "/torva-XXXXXX") {
        if (::mkdtemp(path_.data()) == nullptr) {
            throw std::runtime_error("mkdtemp");
        }
    }
    ~TempDirectory() {
        boost::system::error_code ignored;
        boost::filesystem::remove_all(path_, ignored);
    }
    TempDirectory(const TempDirectory&) = delete;
    TempDirectory& operator=(const TempDirectory&) = delete;

    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

    /// Names of the files in it.
    std::set<std::string> names() const {
        std::set<std::string> names;
        for (const auto& entry : boost::filesystem::directory_iterator(path_)) {
            names.insert(entry.path().filename().string());
        }
        return names;
    }

private:
    std::string path_;
};

inline std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

inline void writeFile(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

} // namespace torva::test

#include "torva/maildb/Files.h"

#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <unistd.h>

namespace torva::test {

std::string read_file(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        throw std::runtime_error("cannot read " + path);
    }
    return {std::istreambuf_iterator<char>(file), {}};
}

void write_file(const std::string& path, const std::string& text) {
    std::ofstream file(path, std::ios::binary);
    file << text << std::flush;
    if (!file) {
        throw std::runtime_error("cannot write " + path);
    }
}

std::size_t descriptor_count() {
    // The iteration itself holds one.
    return static_cast<std::size_t>(
        std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}) - 1);
}

bool is_close_on_exec(int descriptor) {
    return (fcntl(descriptor, F_GETFD) & FD_CLOEXEC) != 0;
}

std::string read_stack() {
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        if (line.find("[stack]") == std::string::npos) {
            continue;
        }
        char dash = 0;
        std::size_t start = 0;
        std::size_t end = 0;
        std::istringstream(line) >> std::hex >> start >> dash >> end;
        const char mark = 0;
        const auto here = reinterpret_cast<std::size_t>(&mark);
        std::string bytes(here - start, '\0');
        const int memory = open("/proc/self/mem", O_RDONLY | O_CLOEXEC);
        const ssize_t count = pread(memory, bytes.data(), bytes.size(), static_cast<off_t>(start));
        close(memory);
        bytes.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
        return bytes;
    }
    throw std::runtime_error("no stack");
}

} // namespace torva::test

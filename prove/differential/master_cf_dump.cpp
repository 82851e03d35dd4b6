// Prints how our reader understands files in master.cf syntax, for comparison with
// "postconf -M". Takes paths on standard input, one a line, and answers each with a
// line "file PATH"; then one line "service ..." for each service in the order of the
// file, its columns and words with a blank between them, or one line "error ...".
#include "torva/postfix/mastercf/MasterCfReader.h"

#include <exception>
#include <iostream>
#include <stdexcept>

using namespace torva::mail::postfix;

namespace {

/// The service on a line; null when there is none. The name alone is not enough:
/// services of several types may have the same.
const MasterCfModule* serviceIn(const std::string& line, const MasterCfLines& lines) {
    const std::string name = line.substr(0, line.find_first_of(" \t\r\n#"));
    for (const ModuleType type : {ModuleType::inet, ModuleType::unix, ModuleType::fifo}) {
        const MasterCfLines::Key key(name, type);
        if (lines.contains(key) && &lines.text(key) == &line) {
            return &lines.record(key);
        }
    }
    return nullptr;
}

bool isNote(const std::string& line) {
    const std::string::size_type first = line.find_first_not_of(" \t\r");
    return first == std::string::npos || line[first] == '#';
}

void print(const std::string& path) {
    std::cout << "file " << path << '\n';
    MasterCfLines lines;
    try {
        MasterCfReader::read(path, lines);
    } catch (const std::exception& error) {
        std::cout << "error " << error.what() << '\n';
        return;
    }
    for (const std::string& line : lines.lines()) {
        if (isNote(line)) {
            continue;
        }
        const MasterCfModule* const service = serviceIn(line, lines);
        if (service == nullptr) {
            throw std::logic_error("a line that is neither note nor service: " + line);
        }
        std::cout << "service " << formatModule(*service) << '\n';
    }
}

} // namespace

int main() {
    for (std::string path; std::getline(std::cin, path);) {
        print(path);
    }
    return std::cout.flush() ? 0 : 1;
}

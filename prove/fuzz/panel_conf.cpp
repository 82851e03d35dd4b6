// The panel's configuration file: the pairs and the reports are those of a second reader,
// written here with C++ strings, and the pairs, written out, are read as the same pairs.
#include "Fuzz.h"
#include "torva/libc/log.h"
#include "torva/libc/panel_conf_parse.h"

#include <cstring>
#include <memory>

using namespace torva::fuzz;

namespace {

struct Reading {
    std::vector<std::pair<std::string, std::string>> pairs;
    int spaceExpected = 0;
    int valueExpected = 0;

    bool operator==(const Reading& other) const {
        return pairs == other.pairs && spaceExpected == other.spaceExpected &&
               valueExpected == other.valueExpected;
    }
};

Reading* reading; // receives the reports

void countReport(int priority, const char* format, ...) {
    require(priority == 12, "reports have the priority 12");
    if (std::strstr(format, "a space after") != nullptr) {
        ++reading->spaceExpected;
    } else {
        require(std::strstr(format, "a value") != nullptr, "nothing else goes wrong");
        ++reading->valueExpected;
    }
}

Reading parsed(std::string text) {
    Reading result;
    reading = &result;
    torva_log = countReport;
    // fmemopen(3) refuses a buffer of no bytes.
    const std::unique_ptr<FILE, int (*)(FILE*)> stream(
        text.empty() ? std::fopen("/dev/null", "r") : fmemopen(text.data(), text.size(), "r"),
        std::fclose);
    const std::unique_ptr<panel_conf_file, void (*)(panel_conf_file*)> file(
        panel_conf_parse(stream.get()), panel_conf_free);
    require(file != nullptr, "no text is refused as a whole");
    for (std::size_t i = 0; i < file->count; ++i) {
        const panel_conf_pair& pair = file->pairs[i];
        result.pairs.emplace_back(pair.name, pair.value);
        require(panel_conf_find(file.get(), pair.name) == pair.value, "every name is found");
    }
    return result;
}

bool isSpace(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

bool isNameCharacter(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
}

void readLine(const std::string& whole, Reading& result) {
    const std::string line(std::find_if_not(whole.begin(), whole.end(), isSpace), whole.end());
    const auto nameEnd = std::find_if_not(line.begin(), line.end(), isNameCharacter);
    const auto valueBegin = std::find_if_not(nameEnd, line.end(), isSpace);
    std::string value(valueBegin, std::find(valueBegin, line.end(), '#'));
    while (!value.empty() && isSpace(value.back())) {
        value.pop_back();
    }
    if (line.empty() || line.front() == '#') {
        return;
    }
    if (nameEnd == valueBegin && nameEnd != line.end()) {
        ++result.spaceExpected;
    } else if (value.empty()) {
        ++result.valueExpected;
    } else {
        const std::string name(line.begin(), nameEnd);
        for (auto& known : result.pairs) {
            if (known.first == name) {
                known.second = value;
                return;
            }
        }
        result.pairs.emplace_back(name, value);
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = textOf(data, size);
    const Reading found = parsed(text);
    Reading wanted;
    for (const std::string& line : linesOf(text)) {
        readLine(line.substr(0, line.find('\0')), wanted);
    }
    require(found == wanted, "pairs and reports are those of the second reader");
    std::string written;
    for (const auto& [name, value] : found.pairs) {
        written += name + "\t" + value + " # of the panel\r\n";
    }
    require(parsed(written) == Reading{found.pairs, 0, 0}, "what is written is read again");
    require(parsed(text + "\n" + text).pairs == found.pairs, "a second time changes nothing");
    return 0;
}

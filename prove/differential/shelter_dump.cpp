// Shelters the services of files in master.cf syntax, as torva-postfixctl does around a run.
// Takes paths on standard input, one a line, and answers each with one line: "whole" when the
// run accepts the sheltered text, and every byte comes back; or what is wrong. There is no run
// in between: a sheltered service that a run replaces comes back as a comment.
#include "ctl/host/Files.h"
#include "ctl/host/Shelter.h"

#include <exception>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

using namespace torva::ctl;

namespace {

/// Whether the lines are the same, but for a comment sign before some of them.
bool areSameButComments(const std::string& before, const std::string& after) {
    std::istringstream old(before);
    std::istringstream fresh(after);
    std::string oldLine;
    std::string freshLine;
    while (std::getline(old, oldLine)) {
        if (!std::getline(fresh, freshLine) ||
            (freshLine != oldLine && freshLine != "#" + oldLine)) {
            return false;
        }
    }
    return !std::getline(fresh, freshLine);
}

std::string judgementOf(const std::string& path) {
    const std::string text = readFile(path).value();
    const Sheltered sheltered = shelter(text);
    if (!sheltered.refusal.empty()) {
        return "refused: " + sheltered.refusal;
    }
    std::vector<std::string> replaced;
    const std::string after = unshelter(sheltered.text, sheltered, replaced);
    const bool isWhole = replaced.empty() ? after == text : areSameButComments(text, after);
    return isWhole ? "whole" : "changed";
}

} // namespace

int main() {
    for (std::string path; std::getline(std::cin, path);) {
        try {
            std::cout << judgementOf(path) << '\n';
        } catch (const std::exception& error) {
            std::cout << "error: " << error.what() << '\n';
        }
    }
    return std::cout.flush() ? 0 : 1;
}

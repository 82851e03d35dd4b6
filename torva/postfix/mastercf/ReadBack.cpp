#include "torva/postfix/mastercf/ReadBack.h"

#include "torva/postfix/mastercf/MasterCfParser.h"

#include <algorithm>
#include <stdexcept>

namespace torva::mail::postfix {

namespace {

bool isName(const std::string& text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), &isNameCharacter);
}

/// Whether these are word characters, and blanks, at which a text is read as several
/// words.
bool areWords(const std::vector<std::string>& words) {
    bool any = false;
    for (const std::string& text : words) {
        for (const char c : text) {
            if (isWordCharacter(c)) {
                any = true;
            } else if (!isBlank(c)) {
                return false;
            }
        }
    }
    return any;
}

bool isType(ModuleType type) {
    return type == ModuleType::inet || type == ModuleType::unix || type == ModuleType::fifo;
}

} // namespace

void requireReadsBack(const MasterCfModule& module, const std::string& text) {
    if (!isName(module.name) || !isType(module.type) || module.wakeup < -1 || module.maxproc < -1 ||
        !areWords(module.words)) {
        throw std::invalid_argument("not a service of master.cf: " + text);
    }
}

} // namespace torva::mail::postfix

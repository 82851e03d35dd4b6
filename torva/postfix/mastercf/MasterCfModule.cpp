#include "torva/postfix/mastercf/MasterCfModule.h"

namespace torva::mail::postfix {

namespace {

const char* spelling(ModuleType type) {
    switch (type) {
    case ModuleType::inet:
        return "inet";
    case ModuleType::unix:
        return "unix";
    case ModuleType::fifo:
        break;
    }
    return "fifo";
}

// An indeterminate value is neither true nor false to static_cast<bool>, and a
// comparison with it is never true.
const char* spelling(boost::logic::tribool value) {
    if (boost::logic::indeterminate(value)) {
        return "-";
    }
    return static_cast<bool>(value) ? "y" : "n";
}

std::string spelling(std::int32_t number) {
    return number == -1 ? "-" : std::to_string(number);
}

} // namespace

std::string formatModule(const MasterCfModule& module) {
    std::string text = module.name;
    const auto column = [&text](const std::string& value) {
        text += ' ';
        text += value;
    };
    column(spelling(module.type));
    column(spelling(module.private_));
    column(spelling(module.unpriv));
    column(spelling(module.chroot));
    column(spelling(module.wakeup));
    // "-?" is not a wakeup time.
    if (module.wakeupConditional && module.wakeup != -1) {
        text += '?';
    }
    column(spelling(module.maxproc));
    for (const std::string& word : module.words) {
        column(word);
    }
    return text;
}

} // namespace torva::mail::postfix

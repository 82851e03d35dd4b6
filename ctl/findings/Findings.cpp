#include "ctl/findings/Findings.h"

#include <algorithm>

namespace torva::ctl {

void Findings::ok(const std::string& subject, const std::string& text) {
    all_.push_back({Level::ok, subject, text, ""});
}

void Findings::warning(const std::string& subject, const std::string& text,
                       const std::string& advice) {
    all_.push_back({Level::warning, subject, text, advice});
}

void Findings::stop(const std::string& subject, const std::string& text,
                    const std::string& advice) {
    all_.push_back({Level::stop, subject, text, advice});
}

void Findings::fine(const std::string& subject, const std::string& text) {
    const bool troubled = std::any_of(all_.begin(), all_.end(), [&](const Finding& one) {
        return one.subject == subject && one.level != Level::ok;
    });
    if (!troubled) {
        ok(subject, text);
    }
}

bool Findings::stopped() const {
    return std::any_of(all_.begin(), all_.end(),
                       [](const Finding& one) { return one.level == Level::stop; });
}

} // namespace torva::ctl

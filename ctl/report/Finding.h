// One result of the companion's checks: how bad it is, what it concerns, what was seen,
// what to do about it. Printing findings is Report.h.
#pragma once

#include <string>

namespace torva::ctl {

/// How bad a finding is, or that it reports an action.
enum class Level {
    ok,      ///< as it should be
    warning, ///< a run works, mail does not
    stop,    ///< a run would fail
    done,    ///< something was done
    failed   ///< something was tried, and failed
};

/// One finding.
struct Finding {
    Level level;
    std::string subject; ///< one word, such as "delivery"; listed in the manual
    std::string text;    ///< what was seen, one line, no line feed
    std::string advice;  ///< what to do about it, one line; empty: nothing
};

} // namespace torva::ctl

// One thing that the companion has to tell about a host: how bad it is, what it
// concerns, what was seen, what to do about it. How findings are printed is the
// business of those who collect them.
#pragma once

#include <string>

namespace torva::ctl {

/// How bad a finding is, or that it tells of something that was done.
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

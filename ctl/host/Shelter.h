// Services in master.cf that Postfix accepts but torva-postfix-setup does not: they are
// made comments during a run, and restored byte for byte, in place. Pure text work.
#pragma once

#include "ctl/host/MasterCfText.h"

#include <string>
#include <vector>

namespace torva::ctl {

/// A master.cf with services sheltered.
struct Sheltered {
    std::string text;               ///< the text for the run
    std::vector<std::string> keys;  ///< NAME/TYPE of each sheltered service, in order
    std::vector<std::string> lines; ///< the lines that were commented out, in order
    std::string mark;               ///< the text before each of them
    std::string refusal;            ///< why the run would still refuse the text; empty: it
                                    ///< accepts it
};

/// Comments out every service that the grammar of torva/postfix/mastercf/ does not accept.
Sheltered shelter(const std::string& masterCf);

/// Restores the services in the text that the run has written. One that the run replaces
/// stays a comment; one that the run adds only if it is missing replaces the added one.
///
/// \param replaced  receives the keys of those that stay comments
/// \throws std::runtime_error "a sheltered line is gone"
std::string unshelter(const std::string& masterCf, const Sheltered& sheltered,
                      std::vector<std::string>& replaced);

} // namespace torva::ctl

// Services of master.cf that torva-postfix-setup does not take but Postfix does: they are
// comments for the time of a run, and come back byte for byte, in place. Pure text work.
#pragma once

#include "ctl/host/MasterCfText.h"

#include <string>
#include <vector>

namespace torva::ctl {

/// A master.cf with services sheltered.
struct Sheltered {
    std::string text;               ///< what the run is to find
    std::vector<std::string> keys;  ///< NAME/TYPE of each sheltered service, in order
    std::vector<std::string> lines; ///< the lines that were commented out, in order
    std::string mark;               ///< what stands in front of each of them
    std::string refusal;            ///< why the run would refuse the text still; empty: it
                                    ///< takes it
};

/// Comments out every service that the grammar of torva/postfix/mastercf/ does not take.
Sheltered shelter(const std::string& masterCf);

/// Brings the services back into what the run has made of the text. One that the run
/// replaces stays a comment, as the run would have replaced it; one that the run adds
/// only where it is missing takes the place of what was added.
///
/// \param replaced  takes the keys of those that stay comments
/// \throws std::runtime_error "a sheltered line is gone"
std::string unshelter(const std::string& masterCf, const Sheltered& sheltered,
                      std::vector<std::string>& replaced);

} // namespace torva::ctl

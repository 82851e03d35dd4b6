// Services in master.cf that Postfix accepts but torva-postfix-setup does not: they are
// made comments during a run, and restored byte for byte, in place. In a private copy of the
// host, so are services that the run leaves alone, where there are many. Pure text work.
#pragma once

#include "ctl/host/MasterCfText.h"

#include <functional>
#include <string>
#include <vector>

namespace torva::ctl {

/// A master.cf with services sheltered.
struct Sheltered {
    std::string text;               ///< the text for the run
    std::vector<std::string> keys;  ///< NAME/TYPE of each service that is not accepted, in
                                    ///< order
    std::vector<std::string> lines; ///< the lines that were commented out, in order
    std::string mark;               ///< the text before each of them
    std::string refusal;            ///< why the run would still refuse the text; empty: it
                                    ///< accepts it
};

/// Says of a service whether it is meant, given its entry and the text of the entry; none: of
/// no service.
using ServiceFilter = std::function<bool(const MasterCfTextEntry& entry, const std::string& text)>;

/// Comments out every service that the grammar of torva/postfix/mastercf/ does not accept.
///
/// \param others  accepted services to comment out as well
Sheltered shelter(const std::string& masterCf, const ServiceFilter& others = nullptr);

/// If master.cf has more than 250 services: those that the run leaves alone, that use no
/// parameter set in main.cf, and to which none belongs by its name (SERVICE_time_limit);
/// without them, Postfix's tools say the same of main.cf. Else none. Whatever such a tool is
/// asked, it reads all of master.cf, in a time that grows with the square of the number of
/// services with options.
///
/// \param masterCf, mainCf  the texts of both files
ServiceFilter uninvolvedServices(const std::string& masterCf, const std::string& mainCf);

/// The text with some services made comments, which cannot be told from others.
std::string withoutServices(const std::string& masterCf, const ServiceFilter& which);

/// Restores the services in the text that the run has written. One that the run replaces
/// stays a comment; one that the run adds only if it is missing replaces the added one.
///
/// \param replaced  receives the keys of those that stay comments
/// \throws std::runtime_error "a sheltered line is gone"
std::string unshelter(const std::string& masterCf, const Sheltered& sheltered,
                      std::vector<std::string>& replaced);

} // namespace torva::ctl

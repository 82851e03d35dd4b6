// One service of master.cf, see master(5), and its one-line text. Services are kept in
// MasterCfLines.h and parsed in MasterCfParser.cpp.
#pragma once

#include <boost/logic/tribool.hpp>

#include <cstdint>
#include <string>
#include <vector>

// A macro when GNU extensions are on, as they may be in a program that includes this
// header; here it is a service type.
#undef unix

namespace torva::mail::postfix {

/// Service types of master.cf. Postfix has more; a file that uses one of those is refused.
enum class ModuleType : std::int32_t { inet = 0, unix = 1, fifo = 2 };

/// A service entry, whose key is (name, type). The fields are the columns of master(5). A
/// three-state field is indeterminate where the file says "-", for Postfix's default.
struct MasterCfModule {
    std::string name;
    ModuleType type = ModuleType::inet;
    boost::logic::tribool private_ = boost::logic::indeterminate;
    boost::logic::tribool unpriv = boost::logic::indeterminate;
    boost::logic::tribool chroot = boost::logic::indeterminate;
    std::int32_t wakeup = -1;       ///< seconds; -1: "-"
    bool wakeupConditional = false; ///< the wakeup time carries a "?"
    std::int32_t maxproc = -1;      ///< number of processes; -1: "-"
    std::vector<std::string> words; ///< the command, then its arguments
};

/// The text of a service: its columns and words separated by one space, without padding,
/// continuation lines or line terminator. Words are written unchanged, including blanks
/// within them; they must not contain a line feed.
std::string formatModule(const MasterCfModule& module);

} // namespace torva::mail::postfix

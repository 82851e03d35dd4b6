// One service of master.cf, see master(5), and its one-line text. Where services
// are kept is MasterCfLines.h; how their text is parsed, MasterCfParser.cpp.
#pragma once

#include <boost/logic/tribool.hpp>

#include <cstdint>
#include <string>
#include <vector>

// With GNU extensions, which a program that uses this header may have turned on,
// this is a macro; here it is a service type.
#undef unix

namespace torva::mail::postfix {

/// Service types of master.cf. Postfix knows more; a file with one of those is
/// not for us to edit.
enum class ModuleType : std::int32_t { inet = 0, unix = 1, fifo = 2 };

/// A service entry; its (name, type) is its key. The fields are the columns of
/// master(5). A three-state field is indeterminate where the file says "-", which
/// is Postfix's own default.
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

/// The text of a service: its columns and words with one space between them, no
/// padding, no continuation lines, no line terminator. A word is written as it is:
/// blanks within it stay, and it must hold no line feed.
std::string formatModule(const MasterCfModule& module);

} // namespace torva::mail::postfix

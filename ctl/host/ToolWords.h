// What the tools of Postfix say beside their answers. Pure text work. From Postfix 3.9 on
// most of it is about settings that a later Postfix drops: every call of postconf says so
// again, and so does all that calls it, such as "postfix check".
#pragma once

#include <string>
#include <vector>

namespace torva::ctl {

/// The lines of a text that are not empty, without carriage returns.
std::vector<std::string> linesOf(const std::string& text);

/// Whether a line is of the form "PROGRAM: warning: TEXT", which no failure ever is.
bool isWarning(const std::string& line);

/// Why a tool failed: what it said without its warnings, in one line, "; " between. A tool
/// that only warned is told whole.
std::string reasonIn(const std::string& said);

/// A parameter that a later Postfix drops.
struct DroppedParameter {
    std::string name;
    std::string words; ///< Postfix's own, from "support for parameter" on
};

/// Those that a text tells of, in its order, each once.
std::vector<DroppedParameter> droppedParameters(const std::string& said);

/// The words about a type of tables that a later Postfix drops; empty: none.
std::string droppedTableType(const std::string& said);

/// Takes out of the words of "postfix check" what needs no correction: that parameters of
/// the run are dropped by a later Postfix, which is a finding of its own, and which files
/// Debian has copied for chrooted services.
std::vector<std::string> withoutNews(const std::vector<std::string>& lines);

} // namespace torva::ctl

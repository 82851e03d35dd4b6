// What the tools of Postfix say besides their answers. Pure text work. From Postfix 3.9 on
// most of it is about settings that a later Postfix drops: every call of postconf says so
// again, and so does everything that calls it, such as "postfix check".
#pragma once

#include <string>
#include <vector>

namespace torva::ctl {

/// The lines of a text that are not empty, without carriage returns.
std::vector<std::string> linesOf(const std::string& text);

/// Whether a line is of the form "PROGRAM: warning: TEXT", which no failure ever is.
bool isWarning(const std::string& line);

/// Why a tool failed: the lines that it printed, except warnings, joined by "; ". If it
/// printed only warnings, these.
std::string reasonIn(const std::string& said);

/// A parameter that a later Postfix drops.
struct DroppedParameter {
    std::string name;
    std::string words; ///< Postfix's own, from "support for parameter" on
};

/// The dropped parameters that a text warns of, in the order of the text, each once.
std::vector<DroppedParameter> droppedParameters(const std::string& said);

/// The warning about a type of tables that a later Postfix drops; empty: there is none.
std::string droppedTableType(const std::string& said);

/// The lines of "postfix check" without those that need no correction: warnings that a later
/// Postfix drops parameters of the run, which are a finding of their own, and the files that
/// Debian has copied for chrooted services.
std::vector<std::string> withoutNews(const std::vector<std::string>& lines);

} // namespace torva::ctl

// The text of master.cf as lines and entries, for changes that keep every other byte. It is
// split as Postfix does, and not validated: the grammar of services is in
// torva/postfix/mastercf/, and Postfix decides what is valid.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace torva::ctl {

/// A logical line that is not a comment, with its continuation lines.
struct MasterCfTextEntry {
    std::size_t first = 0;           ///< index of its first line
    std::size_t last = 0;            ///< and of its last; comments between are not part of it
    std::vector<std::string> fields; ///< see master(5); "{ a b }" is one, with its braces

    /// "NAME/TYPE", as postconf -M names it.
    std::string key() const;
    std::string name() const { return fields.at(0); }
    std::string type() const { return fields.size() > 1 ? fields[1] : std::string(); }
    std::string command() const { return fields.size() > 7 ? fields[7] : std::string(); }
    /// The command and its arguments, with one blank between two.
    std::string commandLine() const;
    /// "y", "n", or "-".
    std::string isPrivate() const { return fields.size() > 2 ? fields[2] : std::string("-"); }
    /// The values of its options "-o NAME=VALUE", as "NAME = VALUE".
    std::vector<std::string> options() const;
};

class MasterCfText {
public:
    explicit MasterCfText(const std::string& text);

    const std::vector<MasterCfTextEntry>& entries() const { return entries_; }

    /// The lines of an entry and comments between them, with their line feeds.
    std::string textOf(const MasterCfTextEntry& entry) const;

    /// The whole text.
    std::string text() const;

    /// Puts a mark before each line of an entry that is not already a comment. The mark
    /// begins with "#". Line indexes stay valid.
    void commentOut(const MasterCfTextEntry& entry, const std::string& mark);

    /// Removes the lines of an entry. Line indexes stay valid.
    void drop(const MasterCfTextEntry& entry);

    std::vector<std::string>& lines() { return lines_; }
    const std::vector<std::string>& lines() const { return lines_; }

private:
    void findEntries();

    std::vector<std::string> lines_; ///< with line feeds, except perhaps the last
    std::vector<MasterCfTextEntry> entries_;
};

} // namespace torva::ctl

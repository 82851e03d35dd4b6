// The text of master.cf as lines and entries, for changes that leave every other byte
// alone. It splits as Postfix does, and judges nothing: what is a service is the grammar
// of torva/postfix/mastercf/, what is valid says Postfix.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace torva::ctl {

/// A logical line that is no comment: from its first line to the last that continues it.
struct MasterCfTextEntry {
    std::size_t first = 0;           ///< index of its first line
    std::size_t last = 0;            ///< and of its last; comments between are not its own
    std::vector<std::string> fields; ///< see master(5); "{ a b }" is one, with its braces

    /// "NAME/TYPE", as postconf -M names it.
    std::string key() const;
    std::string name() const { return fields.at(0); }
    std::string type() const { return fields.size() > 1 ? fields[1] : std::string(); }
    std::string command() const { return fields.size() > 7 ? fields[7] : std::string(); }
    /// "y", "n", or "-".
    std::string isPrivate() const { return fields.size() > 2 ? fields[2] : std::string("-"); }
    /// The values of its options "-o NAME=VALUE", as "NAME = VALUE".
    std::vector<std::string> options() const;
};

class MasterCfText {
public:
    explicit MasterCfText(const std::string& text);

    const std::vector<MasterCfTextEntry>& entries() const { return entries_; }

    /// The lines of an entry, comments between them included, with their line feeds.
    std::string textOf(const MasterCfTextEntry& entry) const;

    /// The whole text.
    std::string text() const;

    /// Puts a mark in front of each line of an entry that is no comment already. The
    /// mark begins with "#". Entries keep their places.
    void commentOut(const MasterCfTextEntry& entry, const std::string& mark);

    /// Removes the lines of an entry. Entries keep their places.
    void drop(const MasterCfTextEntry& entry);

    std::vector<std::string>& lines() { return lines_; }
    const std::vector<std::string>& lines() const { return lines_; }

private:
    void findEntries();

    std::vector<std::string> lines_; ///< each with its line feed, but perhaps the last
    std::vector<MasterCfTextEntry> entries_;
};

} // namespace torva::ctl

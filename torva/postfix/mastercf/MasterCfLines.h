// The content of one file in master.cf syntax: every line as its text, in order,
// and an index of the lines that are services. It neither parses nor does I/O: see
// MasterCfReader.h and MasterCfWriter.h. The pair that makes up a service table, and the
// changes to it, are in MasterCf.h.
#pragma once

#include "torva/postfix/mastercf/MasterCfModule.h"

#include <list>
#include <map>
#include <string>
#include <utility>

namespace torva::mail::postfix {

/// A service as it is stored: its parsed fields and its text.
struct MasterCfEntry {
    MasterCfModule record;
    std::string text;
};

/// After an exception the content is as it was.
class MasterCfLines {
public:
    /// Name and type of a service; ordered by the bytes of the name, then by type.
    using Key = std::pair<std::string, ModuleType>;

    static Key keyOf(const MasterCfModule& record) { return {record.name, record.type}; }

    MasterCfLines() = default;
    // The index points into the list: that of a copy would point into the original.
    MasterCfLines(const MasterCfLines&) = delete;
    MasterCfLines& operator=(const MasterCfLines&) = delete;
    ~MasterCfLines();

    /// The logical lines, without their line terminators. A comment line, an empty line
    /// and a service are one element each; a service with continuation lines contains the
    /// line feeds between them.
    const std::list<std::string>& lines() const { return lines_; }

    /// Appends a line that is not a service: a comment or an empty line.
    void append(std::string text);

    /// Whether there is a service with this key.
    bool contains(const Key& key) const;

    /// Replaces the record and the text of a service in its place, or appends it when its
    /// key is new.
    void set(MasterCfModule record, std::string text);

    /// Removes a service and its line.
    ///
    /// \return whether there was one
    bool remove(const Key& key) noexcept;

    /// The stored service, valid until it is set or removed.
    ///
    /// \throws std::out_of_range  no service with this key
    const MasterCfModule& record(const Key& key) const;
    const std::string& text(const Key& key) const;
    MasterCfEntry get(const Key& key) const;

private:
    /// The line of a service, and its fields. One map for both: a key has either both or
    /// neither.
    struct Service {
        std::list<std::string>::iterator position;
        MasterCfModule record;
    };

    std::list<std::string> lines_;
    std::map<Key, Service> services_;
};

} // namespace torva::mail::postfix

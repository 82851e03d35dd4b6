// Values of main.cf that hold lists, read as Postfix reads them. Lists as the run itself
// reads and edits them are torva/postfix/params/ListValue.h. Pure text work.
#pragma once

#include <string>
#include <vector>

namespace torva::ctl {

/// Elements between runs of blanks and commas; what stands in braces is one element.
std::vector<std::string> listElements(const std::string& value);

/// A lookup table, "TYPE:FILE".
struct MapReference {
    std::string type;
    std::string file;

    std::string text() const { return type + ":" + file; }
};

/// Every table of a type that has a file of its own, wherever it stands in a value:
/// among restrictions, behind "proxy:", in braces.
std::vector<MapReference> mapReferences(const std::string& value);

/// The file that Postfix opens for a table: that of the index where there is one.
std::string openedFile(const MapReference& map);

/// Whether a name ends as the files of indexed tables do, such as "virtual.db".
bool isIndexName(const std::string& name);

/// Whether postmap(1) makes the file that Postfix opens.
bool isIndexed(const std::string& type);

} // namespace torva::ctl

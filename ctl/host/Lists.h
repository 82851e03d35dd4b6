// Lists in main.cf, read as Postfix reads them. Lists as the run itself reads and edits
// them are torva/postfix/params/ListValue.h. Pure text work.
#pragma once

#include <string>
#include <vector>

namespace torva::ctl {

/// Elements between runs of blanks and commas; text in braces is one element.
std::vector<std::string> listElements(const std::string& value);

/// A lookup table, "TYPE:FILE".
struct MapReference {
    std::string type;
    std::string file;

    std::string text() const { return type + ":" + file; }
};

/// Every table with a type that uses files, whatever its case, anywhere in a value: among
/// restrictions, after "proxy:", in braces.
std::vector<MapReference> mapReferences(const std::string& value);

/// The elements of a list that has nothing but tables, of any type, without "proxy:"; elements
/// in braces are left out. What stands behind the type need not be a file.
std::vector<MapReference> tableElements(const std::string& value);

/// The file that Postfix opens for a table: the index for an indexed type.
std::string openedFile(const MapReference& map);

/// Whether a name ends as the files of indexed tables do, such as "virtual.db".
bool isIndexName(const std::string& name);

/// Whether postmap(1) creates the file that Postfix opens.
bool isIndexed(const std::string& type);

} // namespace torva::ctl

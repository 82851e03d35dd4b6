// The files of the host that a run may change or create.
#pragma once

#include "ctl/host/Postfix.h"

#include <string>
#include <vector>

namespace torva::ctl {

/// Whether a run rebuilds alias databases of a type, with postalias(1).
bool isRebuilt(const std::string& type);

/// An alias database that a run rebuilds, and creates if it does not exist.
struct AliasDatabase {
    std::string type;
    std::string path; ///< absolute
    std::string text; ///< as written in the list
};

/// Those in alias_maps and alias_database, with references expanded, each once.
std::vector<AliasDatabase> aliasDatabases(const Postfix& postfix);

/// Whether a path, following links, exists and is not a regular file: a reader could block
/// on a FIFO or device.
bool isNoFile(const std::string& path);

/// The paths that a run, even a killed one, may change: main.cf, master.cf, the directory of
/// the panel's tables, the alias databases; and the targets of symbolic links. No path
/// contains a link, and none is below another. A directory includes everything in it.
std::vector<std::string> touchedPaths(const Postfix& postfix);

/// Drops paths below another path, and sorts.
std::vector<std::string> withoutNested(std::vector<std::string> paths);

} // namespace torva::ctl

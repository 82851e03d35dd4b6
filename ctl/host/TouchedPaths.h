// Which files of the host a run may change or leave behind.
#pragma once

#include "ctl/host/Postfix.h"

#include <string>
#include <vector>

namespace torva::ctl {

/// An alias database that a run makes when it is missing, and rebuilds.
struct AliasDatabase {
    std::string type;
    std::string path; ///< absolute
    std::string text; ///< as it stands in the list
};

/// Those of alias_maps and alias_database, references expanded, each once.
std::vector<AliasDatabase> aliasDatabases(const Postfix& postfix);

/// Whether a path is something else than a file, links followed: a FIFO or device, which
/// whoever reads it would wait for.
bool isNoFile(const std::string& path);

/// What a run, a killed one too, may change: main.cf, master.cf, the directory of the
/// panel's tables, the alias databases; with what symbolic links lead to. Each path goes
/// through no link itself, and none lies below another. A directory stands for all in it.
std::vector<std::string> touchedPaths(const Postfix& postfix);

/// Drops what lies below another path, and sorts.
std::vector<std::string> withoutNested(std::vector<std::string> paths);

} // namespace torva::ctl

// What a backup holds, and what an apply has left, as the JSON documents that stand in
// the directory of the backup. Reading and writing those files is Backups.h.
#pragma once

#include "ctl/backup/Snapshot.h"
#include "ctl/host/Postfix.h"
#include "ctl/host/Records.h"

#include <map>
#include <string>
#include <vector>

namespace torva::ctl {

struct Manifest {
    std::string reason;               ///< such as "before apply"
    std::string configuration;        ///< directory of main.cf and master.cf
    std::string queue;                ///< queue directory
    bool configured = false;          ///< whether a run had been there before
    bool running = false;             ///< whether Postfix was
    std::vector<std::string> paths;   ///< what was looked at, see touchedPaths()
    std::vector<std::string> present; ///< all that was in those two directories
    Snapshot entries;
};

std::string textOf(const Manifest& manifest);

/// \throws std::exception  the text is no manifest
Manifest parseManifest(const std::string& text);

/// The host as an apply has left it: what later changes are measured by.
struct LeftState {
    Snapshot entries;
    Settings settings; ///< of main.cf, see Postfix.h
    Settings services; ///< texts, by NAME/TYPE
    RecordsByTable records;
};

std::string textOf(const LeftState& state);

/// \throws std::exception
LeftState parseLeftState(const std::string& text);

} // namespace torva::ctl

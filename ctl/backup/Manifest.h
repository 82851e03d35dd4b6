// The contents of a backup, and the state that an apply or rollback left, as the JSON documents
// in the directory of the backup. Reading and writing those files is Backups.h.
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
    bool configured = false;          ///< whether a run had configured the host before
    bool running = false;             ///< whether Postfix was running
    std::vector<std::string> paths;   ///< the paths in the backup, see touchedPaths()
    std::vector<std::string> present; ///< everything that was in those two directories
    Snapshot entries;
};

std::string textOf(const Manifest& manifest);

/// \throws std::exception  the text is not a manifest
Manifest parseManifest(const std::string& text);

/// The state of the host after an apply or rollback, with which later states are compared.
struct LeftState {
    Snapshot entries;
    Settings settings; ///< of main.cf, see Postfix.h
    Settings services; ///< texts, by NAME/TYPE
    RecordsByTable records;
    std::string mainCf;   ///< its text; not stored, and so empty in a state that was read
    std::string masterCf; ///< the same
};

std::string textOf(const LeftState& state);

/// \throws std::exception
LeftState parseLeftState(const std::string& text);

} // namespace torva::ctl

// What has changed on the host since an apply. Which of that a run has not done itself:
// ForeignChanges.h.
#pragma once

#include "ctl/backup/Manifest.h"
#include "ctl/host/Postfix.h"

#include <string>
#include <vector>

namespace torva::ctl {

/// The host as it is now.
///
/// \param postfix  what Postfix has just been asked: its settings are taken from it
/// \param paths    see touchedPaths()
/// \throws std::exception  it cannot be read
LeftState captureState(const Postfix& postfix, const std::vector<std::string>& paths);

struct Change {
    std::string kind; ///< "setting", "service", "record" or "file"
    std::string name;
    std::string before; ///< value, text, "TABLE: VALUE"; for a file a description
    std::string after;  ///< the same; empty: it is gone
};

/// The differences; for files in contents, mode, owner, link or attributes, but not in the
/// modification time alone, and not in the index of a table whose records are listed. If
/// main.cf cannot be read now, its settings are not compared, but the file is.
std::vector<Change> changesBetween(const LeftState& left, const LeftState& now);

} // namespace torva::ctl

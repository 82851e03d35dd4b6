// The marker of a verb that has begun to change the host and has not ended: a file in the
// directory of the backups, on disk before the first change.
#pragma once

#include "ctl/backup/Backups.h"

#include <string>

namespace torva::ctl {

struct Marker {
    std::string verb;     ///< "apply" or "rollback"; empty: there is no marker
    std::string stamp;    ///< of the backup to restore; "-": nothing has been changed yet
    bool running = false; ///< whether Postfix was running when the verb began

    bool isSet() const { return !verb.empty(); }
    bool beforeAnyChange() const { return stamp == "-"; }
};

/// The marker of this host; none when there are no backups.
Marker readMarker();

/// \throws SystemError  the marker is as it was
void setMarker(Backups& backups, const Marker& marker);

/// Removes the marker, and what an unfinished backup has left.
///
/// \throws SystemError
void clearMarker(Backups& backups);

} // namespace torva::ctl

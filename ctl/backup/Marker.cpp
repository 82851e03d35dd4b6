#include "ctl/backup/Marker.h"

#include "ctl/backup/Directory.h"

#include <sstream>
#include <unistd.h>

namespace torva::ctl {

namespace {

const char markerName[] = "unfinished";
const char runningWord[] = "running";

} // namespace

Marker readMarker() {
    Marker marker;
    if (Backups::exist()) {
        const process::Descriptor directory = openOwnDirectory(Backups::path);
        std::istringstream text(readOwnFile(directory.get(), markerName));
        std::string running;
        text >> marker.verb >> marker.stamp >> running;
        marker.running = running == runningWord;
    }
    return marker;
}

void setMarker(Backups& backups, const Marker& marker) {
    const std::string running = marker.running ? std::string(" ") + runningWord : "";
    writeOwnFile(backups.directory(), markerName,
                 marker.verb + " " + marker.stamp + running + "\n");
}

void clearMarker(Backups& backups) {
    removeAll(backups.directory(), std::string(".") + markerName);
    removeAll(backups.directory(), markerName);
    backups.removePartial();
    ::fsync(backups.directory());
}

} // namespace torva::ctl

// The mounts of a process, and those that the inner world must cover. Pure: text in, lists
// out; the mounting is InnerWorld.h.
#pragma once

#include <string>
#include <vector>

namespace torva::ctl::rehearsal {

/// A line of /proc/self/mountinfo, see proc(5).
struct MountPoint {
    std::string path;
    std::string type; ///< of the file system, for example "ext4"
};

/// Reads the text of /proc/self/mountinfo. Malformed lines are ignored.
std::vector<MountPoint> parseMountInfo(const std::string& text);

/// Whether all of the paths are mount points.
bool areMountPoints(const std::vector<MountPoint>& mounts, const std::vector<std::string>& paths);

/// The directories to cover, parents first, each once: those in the root, and mounts below
/// them, except /dev, /proc and /sys, and file systems of the kernel.
///
/// \param topLevel  names of the directories in the root, without links
std::vector<std::string> placesToCover(const std::vector<MountPoint>& mounts,
                                       const std::vector<std::string>& topLevel);

} // namespace torva::ctl::rehearsal

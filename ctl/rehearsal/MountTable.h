// The mounts of a process, and which of them the inner world has to cover. Pure: text
// in, lists out; who mounts is InnerWorld.h.
#pragma once

#include <string>
#include <vector>

namespace torva::ctl::rehearsal {

/// A line of /proc/self/mountinfo, see proc(5).
struct MountPoint {
    std::string path;
    std::string type; ///< of the file system, for example "ext4"
};

/// Reads the text of /proc/self/mountinfo. Lines that are none are left out.
std::vector<MountPoint> parseMountInfo(const std::string& text);

/// Whether all of the paths are mount points.
bool areMountPoints(const std::vector<MountPoint>& mounts, const std::vector<std::string>& paths);

/// The directories to cover, parents first, each once: those right below the root, and
/// what is mounted below them, but for /dev, /proc and /sys, and for file systems that
/// are windows on the kernel.
///
/// \param topLevel  names of the directories in the root, links left out
std::vector<std::string> placesToCover(const std::vector<MountPoint>& mounts,
                                       const std::vector<std::string>& topLevel);

} // namespace torva::ctl::rehearsal

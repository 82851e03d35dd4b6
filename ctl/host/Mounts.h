// The mounts of this mount namespace, see mountinfo in proc(5).
#pragma once

#include <string>
#include <vector>

namespace torva::ctl {

/// The mount points, in the order of mounting; none without /proc.
std::vector<std::string> mountPoints();

} // namespace torva::ctl

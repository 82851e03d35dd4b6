// The contents of a backup as a pax archive, which tar(1) reads: names without their
// leading "/", modes, owners, times to the nanosecond, links, extended attributes.
#pragma once

#include "ctl/backup/Snapshot.h"

#include <functional>
#include <string>
#include <vector>

namespace torva::ctl {

/// Writes all that stands at the paths. A socket, for which the format has no place, is
/// in the snapshot only.
///
/// \param fd  where to write; stays the caller's
/// \return what was written, with checksums of those very bytes
/// \throws SystemError  something cannot be read; std::runtime_error: written
Snapshot writeArchive(int fd, const std::vector<std::string>& paths);

/// Takes the contents of one regular file, piece by piece: called with a size of 0 at
/// its end.
using ContentsConsumer = std::function<void(const char* bytes, std::size_t size)>;

/// Reads an archive from its beginning.
///
/// \param consumerFor  called for each regular file; an empty consumer skips the file
/// \throws std::runtime_error  it cannot be read whole
void readArchive(int fd,
                 const std::function<ContentsConsumer(const std::string& path)>& consumerFor);

/// Unpacks an archive into the working directory, modes, owners and times included.
///
/// \throws std::runtime_error
void unpackArchive(int fd);

} // namespace torva::ctl

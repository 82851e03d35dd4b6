// The contents of a backup as a pax archive, which tar(1) reads: names without their
// leading "/", modes, owners, times to the nanosecond, links, extended attributes.
#pragma once

#include "ctl/backup/Snapshot.h"

#include <functional>
#include <string>
#include <vector>

namespace torva::ctl {

/// Writes everything at the paths and below. Sockets, which the format does not have, are
/// only in the snapshot.
///
/// \param fd  where to write; not closed
/// \return what was written, with checksums of exactly those bytes
/// \throws SystemError  something cannot be read; std::runtime_error: written
Snapshot writeArchive(int fd, const std::vector<std::string>& paths);

/// Takes the contents of one regular file, piece by piece; called with a size of 0 at the
/// end.
using ContentsConsumer = std::function<void(const char* bytes, std::size_t size)>;

/// Reads an archive from its beginning.
///
/// \param consumerFor  called for each regular file; an empty consumer skips the file
/// \throws std::runtime_error  it cannot be read completely
void readArchive(int fd,
                 const std::function<ContentsConsumer(const std::string& path)>& consumerFor);

/// Unpacks an archive into the working directory, with modes, owners and times.
///
/// \throws std::runtime_error
void unpackArchive(int fd);

} // namespace torva::ctl

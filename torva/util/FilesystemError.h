// Boost's filesystem_error for our own failed system calls on paths, with the same text
// under every version of Boost: later ones add the category and number of the code.
// Private to the library: not installed.
#pragma once

#include <boost/filesystem/exception.hpp>
#include <boost/filesystem/path.hpp>

namespace torva {

/// Makes the error. Its what() is the operation, ": ", the text of strerror(3), and ": "
/// with the path in double quotes.
///
/// \param operation  name of the operation that failed, such as "chmod"
/// \param path       its file
/// \param code       errno value; code() of the error has the system category
boost::filesystem::filesystem_error filesystemError(const char* operation,
                                                    const boost::filesystem::path& path, int code);

/// The same for two paths, the second of which follows after ", ".
boost::filesystem::filesystem_error filesystemError(const char* operation,
                                                    const boost::filesystem::path& from,
                                                    const boost::filesystem::path& to, int code);

} // namespace torva

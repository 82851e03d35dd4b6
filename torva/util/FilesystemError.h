// Boost's filesystem_error for our own failed system calls on paths, with one text under
// every version of Boost: later ones put the category and number of the code into it.
// Private to the library: not installed.
#pragma once

#include <boost/filesystem/exception.hpp>
#include <boost/filesystem/path.hpp>

namespace torva {

/// The error, to be thrown. Its what() is the operation, ": ", the text of strerror(3),
/// and ": " with the path in double quotes.
///
/// \param operation  name of the operation that failed, such as "chmod"
/// \param path       what it was about
/// \param code       errno value; code() of the error has the system category
boost::filesystem::filesystem_error filesystemError(const char* operation,
                                                    const boost::filesystem::path& path, int code);

/// The same about two paths, of which the second follows behind ", ".
boost::filesystem::filesystem_error filesystemError(const char* operation,
                                                    const boost::filesystem::path& from,
                                                    const boost::filesystem::path& to, int code);

} // namespace torva

// A scratch file: an output file stream that always removes its file. There is no
// way to keep it; whoever wants the content renames the file away before. Files
// that replace others are torva/util/TmpFile.h.
#pragma once

#include <fstream>
#include <string>

namespace torva {

/// The stream. As with any std::ofstream, a failed opening or writing shows in
/// the stream's state, and close() tells whether all of it reached the file. Its
/// descriptor is close-on-exec from birth and above 2.
class AutocleanOFStream : public std::ofstream {
public:
    /// Opens the file as std::ofstream does.
    ///
    /// \param file  the file, removed by the destructor whether or not it could be
    ///              opened
    /// \param mode  see std::ofstream
    explicit AutocleanOFStream(const std::string& file, openmode mode = out);

    /// Writes to a file that is open already, where another file could have taken
    /// its name in the meantime.
    ///
    /// \param file  its name, removed by the destructor whatever it then stands for
    /// \param fd    open for writing; stays the caller's, the stream writes through
    ///              a duplicate
    AutocleanOFStream(const std::string& file, int fd);

    /// Removes the file, then closes it. Reports nothing, keeps errno.
    ~AutocleanOFStream() override;

private:
    void attach(int fd, openmode mode);

    std::string path; ///< the file that it opened
};

} // namespace torva

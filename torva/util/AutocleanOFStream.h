// A scratch file: an output file stream that always removes its file. To keep the
// contents, rename the file before. Files that replace others are torva/util/TmpFile.h.
#pragma once

#include <fstream>
#include <string>

namespace torva {

/// The stream. As with any std::ofstream, the stream's state tells whether opening or
/// writing failed, and that after close() whether everything reached the file. Its
/// descriptor is close-on-exec from birth and above 2.
class AutocleanOFStream : public std::ofstream {
public:
    /// Opens the file as std::ofstream does.
    ///
    /// \param file  the file, removed by the destructor whether or not it could be
    ///              opened
    /// \param mode  see std::ofstream
    explicit AutocleanOFStream(const std::string& file, openmode mode = out);

    /// Writes to a file that is already open, for when another file could have taken its
    /// name since.
    ///
    /// \param file  its name, removed by the destructor whatever file then has it
    /// \param fd    open for writing; duplicated, not closed
    AutocleanOFStream(const std::string& file, int fd);

    /// Removes the file, then closes it. Reports nothing, keeps errno.
    ~AutocleanOFStream() override;

private:
    void attach(int fd, openmode mode);

    std::string path; ///< the file that it opened
};

} // namespace torva

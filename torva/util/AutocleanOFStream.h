// A scratch file: an output file stream that always removes its file. There is no
// way to keep it; whoever wants the content renames the file away before. Files
// that replace others are torva/util/TmpFile.h.
#pragma once

#include <fstream>
#include <string>

namespace torva {

/// The stream. As with any std::ofstream, a failed opening or writing shows in
/// the stream's state, and close() tells whether all of it reached the file.
class AutocleanOFStream : public std::ofstream {
public:
    /// Opens the file as std::ofstream does, but close-on-exec.
    ///
    /// \param file  the file, removed by the destructor whether or not it could be
    ///              opened
    /// \param mode  see std::ofstream
    explicit AutocleanOFStream(const std::string& file, openmode mode = out);

    /// Removes the file, then closes it. Reports nothing, keeps errno.
    ~AutocleanOFStream() override;

private:
    std::string path; ///< the file that it opened
};

} // namespace torva

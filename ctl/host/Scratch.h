// A private temporary directory.
#pragma once

#include <string>

namespace torva::ctl {

class ScratchDirectory {
public:
    /// Creates it with mode 0700 in $TMPDIR, or in /tmp if it cannot be made there, or another
    /// account could replace it there.
    ///
    /// \throws SystemError "mkdtemp"
    ScratchDirectory();
    /// Removes it with the regular files in it.
    ~ScratchDirectory();
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;

    const std::string& path() const { return path_; }

    /// Creates a file in it with an old modification time.
    ///
    /// \throws SystemError
    void write(const std::string& name, const std::string& text) const;

private:
    std::string path_;
};

} // namespace torva::ctl

// A private directory for the time of a call.
#pragma once

#include <string>

namespace torva::ctl {

class ScratchDirectory {
public:
    /// Makes it, mode 0700, below $TMPDIR or /tmp.
    ///
    /// \throws SystemError "mkdtemp"
    ScratchDirectory();
    /// Removes it with the plain files in it.
    ~ScratchDirectory();
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;

    const std::string& path() const { return path_; }

    /// Makes a file in it that has not been changed for long.
    ///
    /// \throws SystemError
    void write(const std::string& name, const std::string& text) const;

private:
    std::string path_;
};

} // namespace torva::ctl

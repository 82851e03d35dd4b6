// Files of a table that come back when what replaces them does not work out. For the
// rewriting of tables (TableRewrite.h) only.
// Private to the library: not installed.
#pragma once

#include "torva/util/TmpFile.h"

#include <memory>
#include <string>
#include <sys/stat.h>

namespace torva::mail::postfix {

/// A source file that is about to be replaced by rename(2). It is kept under a second
/// name, so that the very same file comes back: content, mode, owner, times, other
/// names. Where a file cannot have a second name, a copy is kept.
class KeptSource {
public:
    /// \param path  a file, which need not be there
    /// \throws SystemError  it can be neither linked nor copied
    explicit KeptSource(const std::string& path);
    KeptSource(const KeptSource&) = delete;
    KeptSource& operator=(const KeptSource&) = delete;

    /// Puts the file back if it was replaced and not let go; removes the second name.
    /// Should putting back fail, the second name stays: it is all that is left.
    ~KeptSource();

    void setReplaced() { replaced_ = true; }
    void letGo() { replaced_ = false; }

private:
    std::string path_;
    std::unique_ptr<TmpFile> kept_;
    bool replaced_ = false;
};

/// An index file that postmap is about to write to where it is: a copy is kept.
class KeptIndex {
public:
    /// \param path  a file, which need not be there; administrators' links are followed
    /// \throws SystemError  it cannot be copied
    explicit KeptIndex(const std::string& path);
    KeptIndex(const KeptIndex&) = delete;
    KeptIndex& operator=(const KeptIndex&) = delete;

    /// Puts the copy in the place of the file if that was touched since and not let go.
    ~KeptIndex();

    void letGo() { copy_.reset(); }

private:
    bool wasTouched() const;

    std::string path_;
    std::unique_ptr<TmpFile> copy_; ///< null: there was no file, or it was let go
    struct stat status_ = {};
};

} // namespace torva::mail::postfix

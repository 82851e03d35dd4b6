// Keeps the files of a table, and restores them when replacing them fails. For the
// rewriting of tables (TableRewrite.h) only.
// Private to the library: not installed.
#pragma once

#include "torva/util/TmpFile.h"

#include <memory>
#include <string>
#include <sys/stat.h>

namespace torva::mail::postfix {

/// A source file that is about to be replaced by rename(2). It is kept as a second hard
/// link, so that the same file can be restored: contents, mode, owner, times, other links.
/// Where it cannot be linked, a copy is kept.
class KeptSource {
public:
    /// \param path  a file, which need not exist
    /// \throws SystemError  it can be neither linked nor copied
    explicit KeptSource(const std::string& path);
    KeptSource(const KeptSource&) = delete;
    KeptSource& operator=(const KeptSource&) = delete;

    /// Restores the file if it was replaced and not let go; removes the second link. If
    /// restoring fails, the second link stays: it is the only one left.
    ~KeptSource();

    void setReplaced() { replaced_ = true; }
    void letGo() { replaced_ = false; }

private:
    std::string path_;
    std::unique_ptr<TmpFile> kept_;
    bool replaced_ = false;
};

/// An index file that postmap is about to overwrite in place: a copy is kept.
class KeptIndex {
public:
    /// \param path  a file, which need not exist; administrators' links are followed
    /// \throws SystemError  it cannot be copied
    explicit KeptIndex(const std::string& path);
    KeptIndex(const KeptIndex&) = delete;
    KeptIndex& operator=(const KeptIndex&) = delete;

    /// Replaces the file by the copy if it was changed since and not let go.
    ~KeptIndex();

    void letGo() { copy_.reset(); }

private:
    bool wasTouched() const;

    std::string path_;
    std::unique_ptr<TmpFile> copy_; ///< null: there was no file, or letGo() was called
    struct stat status_ = {};
};

} // namespace torva::mail::postfix

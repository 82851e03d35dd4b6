// One path that a restoration replaces: the new file or directory is built next to it,
// under another name, and moved into place when it is complete.
#pragma once

#include "ctl/backup/Archive.h"
#include "ctl/backup/Snapshot.h"

#include <map>
#include <string>

namespace torva::ctl {

/// If only mode, owner, times and attributes of a file differ, sets them, on exactly the
/// file that was described.
///
/// \return whether that was enough; false: it must be replaced, and nothing was done
/// \throws SystemError
bool correctInPlace(const std::string& path, const Entry& now, const Entry& wanted);

/// Removes what an unfinished replacement of this path has left.
///
/// \throws SystemError
void removeReplacement(const std::string& path);

/// The sequence: construct it, write contentsOf() every file that it holds(), complete(),
/// moveIntoPlace(), removeOld(). The destructor removes what was not moved.
class Replacement {
public:
    /// Creates directories, links and nodes next to the path.
    ///
    /// \param wanted  the path and everything below it; a missing one will be removed
    /// \throws SystemError
    Replacement(const std::string& path, const Snapshot& wanted);
    ~Replacement();
    Replacement(const Replacement&) = delete;
    Replacement& operator=(const Replacement&) = delete;

    /// Whether it has a regular file with this path.
    bool holds(const std::string& path) const;

    /// Takes the contents of such a file, once.
    ///
    /// \throws std::runtime_error  they have been taken already
    ContentsConsumer contentsOf(const std::string& path);

    /// Sets the mode, owner, times and attributes of everything, from the inside out.
    ///
    /// \throws SystemError; std::runtime_error: the contents of a file were not given, or are
    ///         not those that are wanted
    void complete();

    /// What was there is beside it afterwards.
    ///
    /// \throws SystemError
    void moveIntoPlace();

    /// Removes what was there.
    ///
    /// \throws SystemError
    void removeOld();

private:
    void makeTop(const Entry& entry);
    void makeInside(const std::string& path, const Entry& entry);
    void requireContents() const;
    void completeOne(const std::string& path, const Entry& entry);
    std::string inside(const std::string& path) const;

    std::string path_;
    Snapshot wanted_;
    process::Descriptor parent_; ///< directory of the path
    process::Descriptor top_;    ///< the new file or directory; not open for links and nodes
    std::string name_;           ///< last component of the path
    std::string newName_;        ///< name of the replacement, in the same directory
    std::map<std::string, std::string> checksums_; ///< of the contents that were given, by path
};

} // namespace torva::ctl

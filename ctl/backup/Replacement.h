// One path that a restoration replaces: the new one is built beside it, under a name of
// its own, and moved into place when all of it stands.
#pragma once

#include "ctl/backup/Archive.h"
#include "ctl/backup/Snapshot.h"

#include <string>

namespace torva::ctl {

/// Where only mode, owner, times and attributes of a file differ: sets them, on the very
/// file that was described.
///
/// \return whether that was all; false: it has to be replaced, and nothing was done
/// \throws SystemError
bool correctInPlace(const std::string& path, const Entry& now, const Entry& wanted);

/// Removes what an unfinished replacement of this path has left.
///
/// \throws SystemError
void removeReplacement(const std::string& path);

/// The sequence: make it, write contentsOf() every file that it holds(), complete(),
/// moveIntoPlace(). What was not moved is removed with the object.
class Replacement {
public:
    /// Makes directories, links and nodes beside the place.
    ///
    /// \param wanted  the path and all below it; a path that is not there is to be gone
    /// \throws SystemError
    Replacement(const std::string& path, const Snapshot& wanted);
    ~Replacement();
    Replacement(const Replacement&) = delete;
    Replacement& operator=(const Replacement&) = delete;

    /// Whether it has a regular file of this path.
    bool holds(const std::string& path) const;

    /// Takes the contents of such a file.
    ContentsConsumer contentsOf(const std::string& path);

    /// Gives everything its mode, owner, times and attributes, what is inside first.
    ///
    /// \throws SystemError
    void complete();

    /// \throws SystemError
    void moveIntoPlace();

private:
    void makeTop(const Entry& entry);
    void makeInside(const std::string& path, const Entry& entry);
    void completeOne(const std::string& path, const Entry& entry);
    std::string inside(const std::string& path) const;

    std::string path_;
    Snapshot wanted_;
    process::Descriptor parent_; ///< of the place
    process::Descriptor top_;    ///< the new file or directory itself; closed for others
    std::string name_;           ///< last component of the path
    std::string newName_;        ///< of what is being built, in the same directory
};

} // namespace torva::ctl

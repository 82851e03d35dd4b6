// The backups of this host: directories in "/var/backups/torva-postfix", each named after
// the moment when it was made. Restoring one is Restore.h; the marker of an unfinished verb
// is in the same directory, see Marker.h.
#pragma once

#include "ctl/backup/Manifest.h"
#include "torva/process/Descriptor.h"

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace torva::ctl {

/// One backup, as read from its directory.
struct Backup {
    std::string stamp;
    bool whole = false;        ///< unchanged since it was made
    bool earlier = false;      ///< made by an earlier version, in a format that is not read
    Manifest manifest;         ///< if it is whole; otherwise only the reason, if it has one
    bool hasLeftState = false; ///< it has the state that its verb left
    std::time_t made = 0;
    std::uint64_t bytes = 0; ///< of all files

    bool ofApply() const { return whole && manifest.reason == "before apply"; }

    /// Whether it is of the Postfix with this configuration directory, of the instances that
    /// the host may have.
    bool ofInstance(const std::string& configuration) const;
};

class Backups {
public:
    static const char* const path;

    /// Opens the directory, and creates it if it does not exist.
    ///
    /// \throws as openOwnDirectory()
    Backups();

    /// Whether the directory exists; does not create it.
    static bool exist();

    /// Makes a backup. Its name appears when it is complete, equal to the host, and on
    /// disk.
    ///
    /// \param manifest  all but the entries
    /// \return its stamp
    /// \throws std::exception  no backup was made, for example because there is not enough
    ///         room for it. What was begun is removed, at the latest by the next call; the
    ///         others are as before
    std::string take(Manifest manifest);

    /// All, oldest first.
    std::vector<Backup> list() const;

    /// Those of one instance of Postfix, oldest first.
    std::vector<Backup> listOf(const std::string& configuration) const;

    /// One of them; nothing when there is none with this name.
    std::optional<Backup> find(const std::string& stamp) const;

    /// The backup that a rollback without a stamp restores: the state before the first of
    /// the newest applies in a row; see rollback in the manual. Damaged ones are ignored.
    std::optional<Backup> beforeNewestRow(const std::string& configuration) const;

    /// The newest backup of an apply that has the state that it left.
    std::optional<Backup> newestWithLeftState(const std::string& configuration) const;

    /// Stores the state that a verb left with its backup.
    ///
    /// \throws SystemError  it is not stored
    void keepLeftState(const std::string& stamp, const LeftState& state);

    /// \throws std::exception  there is none, or it is damaged
    LeftState leftState(const std::string& stamp) const;

    /// The archive of a backup, open for reading.
    process::Descriptor openArchive(const std::string& stamp) const;

    /// \throws SystemError
    void remove(const std::string& stamp);

    /// Removes what an unfinished take() has left.
    void removePartial();

    int directory() const { return directory_.get(); }

private:
    std::string takePartial(Manifest manifest);

    process::Descriptor directory_;
};

/// The name of a new backup, the current date and time in UTC. If the clock has been ahead,
/// and one of the names is not earlier than that: one second after the latest of them. So the
/// newest backup is always that with the last name.
///
/// \param names  what the directory of the backups holds; others than stamps do not matter
std::string stampAfter(const std::vector<std::string>& names, std::time_t now);

/// Whether a text is the name of a backup.
bool isStamp(const std::string& text);

} // namespace torva::ctl

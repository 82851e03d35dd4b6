// The backups of this host: directories of "/var/backups/torva-postfix", each named after
// the moment it was made. Putting one back is Restore.h; the marker of what has begun and
// not ended stands beside them, see Marker.h.
#pragma once

#include "ctl/backup/Manifest.h"
#include "torva/process/Descriptor.h"

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace torva::ctl {

/// One backup, as its directory tells.
struct Backup {
    std::string stamp;
    bool whole = false;        ///< nothing in it has changed since it was made
    bool earlier = false;      ///< made by an earlier version, in a format that is not read
    Manifest manifest;         ///< when it is whole; else the reason only, if that is there
    bool hasLeftState = false; ///< what the apply has left is kept with it
    std::time_t made = 0;
    std::uint64_t bytes = 0; ///< of all files

    bool ofApply() const { return whole && manifest.reason == "before apply"; }
};

class Backups {
public:
    static const char* const path;

    /// Opens the directory, and makes it when it is missing.
    ///
    /// \throws as openOwnDirectory()
    Backups();

    /// Whether there is such a directory: nothing is made.
    static bool exist();

    /// Makes a backup. Its name appears once it is complete, equal to the host, and on
    /// disk.
    ///
    /// \param manifest  all but the entries
    /// \return its stamp
    /// \throws std::exception  there is no backup; another entry of the directory is as
    ///         it was
    std::string take(Manifest manifest);

    /// All, oldest first.
    std::vector<Backup> list() const;

    /// One of them; nothing when there is none of this name.
    std::optional<Backup> find(const std::string& stamp) const;

    /// The backup that a rollback without a stamp goes to: of the newest row of applies,
    /// the state before the first; see backups in the manual. A damaged one is none.
    std::optional<Backup> beforeNewestRow() const;

    /// The newest backup that knows what its apply has left.
    std::optional<Backup> newestWithLeftState() const;

    /// Keeps with a backup what its apply has left.
    ///
    /// \throws SystemError  there is none then
    void keepLeftState(const std::string& stamp, const LeftState& state);

    /// \throws std::exception  there is none, or it is damaged
    LeftState leftState(const std::string& stamp) const;

    /// The archive of a backup, open for reading.
    process::Descriptor openArchive(const std::string& stamp) const;

    /// \throws SystemError
    void remove(const std::string& stamp);

    /// What an unfinished take() has left.
    void removePartial();

    int directory() const { return directory_.get(); }

private:
    process::Descriptor directory_;
};

/// Whether a text is the name of a backup.
bool isStamp(const std::string& text);

} // namespace torva::ctl

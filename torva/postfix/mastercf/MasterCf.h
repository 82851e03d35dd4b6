// Postfix's service table for editing: the services in master.cf, and a store of disabled
// services, which are kept but do not run. Messages call the table "modules
// configuration" and a service a "module". The grammar is in MasterCfParser.cpp. Finding
// master.cf runs a tool: meanwhile every child of the process is reaped (Pipe.h).
#pragma once

#include "torva/postfix/mastercf/MasterCfLines.h"

#include <memory>
#include <optional>
#include <string>

namespace torva::mail::postfix {

/// The sequence is: load(), queries and changes, save(). A line that is not changed keeps
/// its text byte for byte. Before load(), the operations on services, and save(), throw
/// std::logic_error "modules configuration isn't loaded yet". After an exception both
/// stores and both change flags are as before; for load() and save(), see there.
class MasterCf {
public:
    /// The store of disabled services.
    static const char* const disabledPath;

    /// The instance that the whole process shares. The first call creates it, which asks
    /// Postfix where master.cf is; when that fails, the next call tries again.
    ///
    /// \throws as masterCfPath()
    static MasterCf& instance();

    /// Asks Postfix where master.cf is.
    ///
    /// \throws as PostfixParameters::mainCfPath()
    static std::string masterCfPath();

    /// \param path  file to work on
    explicit MasterCf(std::string path) : path_(std::move(path)) {}
    MasterCf(const MasterCf&) = delete;
    MasterCf& operator=(const MasterCf&) = delete;

    const std::string& path() const { return path_; }

    /// Reads master.cf, then the store of disabled services if its file exists (if not,
    /// a store in memory is kept), and clears both change flags. A store that another
    /// account may have planted is not read (FileOwner::self in MasterCfReader.h).
    ///
    /// \param reload  false: does nothing when master.cf has been read already
    /// \throws as MasterCfReader::read(). When reading the store fails, master.cf has
    ///         been read, and the store in memory and both flags are as before;
    ///         otherwise everything is as before.
    void load(bool reload);

    /// Whether there is a service.
    ///
    /// \param where  true: in master.cf; false: in the store; indeterminate: in
    ///               either
    bool hasModule(const std::string& name, ModuleType type, boost::logic::tribool where) const;

    /// A service, as record and as text; the one in master.cf when both have it.
    ///
    /// \param where  as for hasModule()
    /// \throws std::out_of_range "no such module NAME"
    MasterCfEntry getModule(const std::string& name, ModuleType type,
                            boost::logic::tribool where) const;

    /// Replaces a service in its place, or appends a new one, and removes it from the
    /// other store. A service that already has exactly this text is not changed.
    ///
    /// \param module   service entry; its text is that of formatModule()
    /// \param enabled  true: into master.cf; false: into the store
    /// \throws std::invalid_argument "not a service of master.cf: TEXT": the text would
    ///         not be read back as this one service
    void putModule(const MasterCfModule& module, bool enabled);

    /// Moves a service from the store to the end of master.cf, with the text it had. A
    /// service that is in master.cf is left alone.
    ///
    /// \throws std::out_of_range "no such module NAME"
    void enableModule(const std::string& name, ModuleType type);

    /// Moves a service with its text from master.cf to the store. Does nothing when
    /// master.cf does not have it.
    void disableModule(const std::string& name, ModuleType type);

    /// Removes a service from both. Does nothing when neither has it.
    void removeModule(const std::string& name, ModuleType type);

    /// Writes master.cf, then the store if there is one; each only when it has changes.
    /// Before either is replaced, both new texts are on disk, next to their targets.
    ///
    /// \param force  true: also writes without changes, and overwrites other people's
    /// \return whether master.cf was written
    /// \throws PostfixConfigurationError "master.cf was changed by someone else" (or
    ///         "master.cf.disabled ..."): the contents of a file to be written are no
    ///         longer those that load() read or save() wrote; never when forced
    /// \throws as MasterCfWriter::write()
    /// After an exception neither file was written, unless renaming the store failed: a
    /// changed master.cf was written before. A flag is cleared only when its file was
    /// written: call save() again.
    bool save(bool force);

    /// Whether there are changes that save() has not written.
    bool activeChanged() const { return activeChanged_; }
    bool disabledChanged() const { return disabledChanged_; }

private:
    void requireLoaded() const;
    const MasterCfLines* storeOf(const MasterCfLines::Key& key, boost::logic::tribool where) const;
    std::shared_ptr<MasterCfLines> disabledOrNew() const;

    std::shared_ptr<MasterCfLines> active_;   ///< null: load() has not run
    std::shared_ptr<MasterCfLines> disabled_; ///< null: no file yet, and nothing disabled
    std::optional<std::string> activeText_;   ///< the file as last read or written
    std::optional<std::string> disabledText_; ///< the same; nothing: there was none
    bool activeChanged_ = false;
    bool disabledChanged_ = false;
    const std::string path_;
};

} // namespace torva::mail::postfix

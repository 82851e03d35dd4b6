// Postfix's service table as this system edits it: the services of master.cf, and
// beside them a store of services that are kept but do not run. In messages the table
// is "modules configuration", a service a "module". The syntax is MasterCfParser.cpp.
// Finding master.cf runs a tool: meanwhile every child of the process is reaped (Pipe.h).
#pragma once

#include "torva/postfix/mastercf/MasterCfLines.h"

#include <memory>
#include <optional>
#include <string>

namespace torva::mail::postfix {

/// The sequence is: load(), questions and changes, save(). A line that is not changed
/// keeps its text byte for byte. Every operation but load() throws std::logic_error
/// "modules configuration isn't loaded yet" when load() has not run. On an exception
/// both stores and both change flags are as before, load() and save() as told there.
class MasterCf {
public:
    /// The file that keeps the services that do not run.
    static const char* const disabledPath;

    /// The instance that the whole process shares. It is made, and asks Postfix
    /// where master.cf is, on the first call; a failing first call is tried again
    /// by the next.
    ///
    /// \throws as masterCfPath()
    static MasterCf& instance();

    /// Asks Postfix where master.cf is.
    ///
    /// \throws PostfixConfigurationError "unable to determine Postfix
    ///         config_directory parameter" when the directory is empty; or postconf
    ///         failed, see PostfixParameters
    static std::string masterCfPath();

    /// \param path  file to work on
    explicit MasterCf(std::string path) : path_(std::move(path)) {}
    MasterCf(const MasterCf&) = delete;
    MasterCf& operator=(const MasterCf&) = delete;

    const std::string& path() const { return path_; }

    /// Reads master.cf, then the store of disabled services if its file exists (if
    /// not, a store in memory stays), and forgets all changes. A store that somebody
    /// else may have planted is not read (FileOwner::self in MasterCfReader.h).
    ///
    /// \param reload  false: do nothing when master.cf has been read already
    /// \throws as MasterCfReader::read(). When only the store's file fails,
    ///         master.cf has been read again already; else all is as before.
    void load(bool reload);

    /// Whether there is a service.
    ///
    /// \param where  true: in master.cf; false: in the store; indeterminate: in
    ///               either
    bool hasModule(const std::string& name, ModuleType type, boost::logic::tribool where) const;

    /// A service, as record and as text; that of master.cf when both have it.
    ///
    /// \param where  as hasModule()
    /// \throws std::out_of_range "no such module NAME"
    MasterCfEntry getModule(const std::string& name, ModuleType type,
                            boost::logic::tribool where) const;

    /// Replaces a service in its place, or appends a new one, and removes it from the
    /// other store. A service that has this very text is no change.
    ///
    /// \param module   service entry, written as formatModule() does
    /// \param enabled  true: into master.cf; false: into the store
    /// \throws std::invalid_argument  the text would not be read back as this one
    ///         service: an empty or ill-formed name, no words, a line feed anywhere
    void putModule(const MasterCfModule& module, bool enabled);

    /// Brings a service back from the store to the end of master.cf, with the text
    /// it had. A service that is in master.cf stays untouched.
    ///
    /// \throws std::out_of_range "no such module NAME"
    void enableModule(const std::string& name, ModuleType type);

    /// Moves a service with its text from master.cf to the store. None is no error.
    void disableModule(const std::string& name, ModuleType type);

    /// Removes a service from both. None is no error.
    void removeModule(const std::string& name, ModuleType type);

    /// Writes master.cf, and after it the store if there is one; each only when it
    /// has changes. Both new texts are on disk beside their targets before that.
    ///
    /// \param force  true: write without changes, too, and over what others changed
    /// \return whether master.cf was written
    /// \throws PostfixConfigurationError "master.cf was changed by someone else" (or
    ///         "master.cf.disabled ..."): a file to be written is no longer, to the
    ///         byte, as load() read or save() wrote it; never when forced
    /// On an exception, those of MasterCfWriter::write() included, neither file was
    /// written, unless the rename of the store failed.
    /// A flag falls only when its file was written: another save() goes on from there.
    bool save(bool force);

    /// Whether memory and file differ, as far as changes made here go.
    bool activeChanged() const { return activeChanged_; }
    bool disabledChanged() const { return disabledChanged_; }

private:
    void requireLoaded() const;
    const MasterCfLines* storeOf(const MasterCfLines::Key& key, boost::logic::tribool where) const;
    std::shared_ptr<MasterCfLines> disabledOrNew() const;

    std::shared_ptr<MasterCfLines> active_;   ///< null: load() has not run
    std::shared_ptr<MasterCfLines> disabled_; ///< null: no such file yet, nothing disabled
    std::optional<std::string> activeText_;   ///< the file as last read or written
    std::optional<std::string> disabledText_; ///< the same; nothing: there was none
    bool activeChanged_ = false;
    bool disabledChanged_ = false;
    const std::string path_;
};

} // namespace torva::mail::postfix

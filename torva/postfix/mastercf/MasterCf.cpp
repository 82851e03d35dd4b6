#include "torva/postfix/mastercf/MasterCf.h"

#include "torva/postfix/mastercf/MasterCfReader.h"
#include "torva/postfix/mastercf/MasterCfWriter.h"
#include "torva/postfix/mastercf/ReadBack.h"
#include "torva/util/FileLock.h"
#include "torva/util/PostfixError.h"

#include <boost/filesystem.hpp>

#include <stdexcept>

namespace torva::mail::postfix {

namespace {

// Only a file that certainly does not exist counts as missing. One that stat(2) fails
// for is left to the reader to complain about: the next save() would replace a store
// that was never read.
bool mayExist(const std::string& path) {
    boost::system::error_code ignored;
    return boost::filesystem::status(path, ignored).type() != boost::filesystem::file_not_found;
}

/// The contents of a file that was written from the lines.
std::string textOf(const MasterCfLines& lines) {
    std::string text;
    for (const std::string& line : lines.lines()) {
        text += line;
        text += '\n';
    }
    return text;
}

/// One of the files that a save replaces, from its lock to its rename.
class FileToSave {
public:
    FileToSave(const MasterCfLines& lines, std::string path, FileOwner owner)
        : lines_(lines),
          path_(std::move(path)),
          owner_(owner),
          text_(textOf(lines)),
          lock_(path_, LockMode::wait) {}

    /// \param loaded  the contents of the file when it was read; nothing: it did not exist
    void requireUnchanged(const std::optional<std::string>& loaded) const {
        const bool same =
            mayExist(path_) ? loaded && MasterCfReader::content(path_, owner_) == loaded : !loaded;
        if (!same) {
            const std::string name = path_.substr(path_.rfind('/') + 1);
            throw PostfixConfigurationError(name + " was changed by someone else");
        }
    }

    void stage() { staged_.emplace(lines_, path_); }
    void replaceTarget() { staged_->replaceTarget(); }

    /// The contents of the file after that.
    std::string& text() { return text_; }

private:
    const MasterCfLines& lines_;
    const std::string path_;
    const FileOwner owner_;
    std::string text_;
    const FileLock lock_;
    std::optional<StagedFile> staged_;
};

} // namespace

const char* const MasterCf::disabledPath = "/var/spool/postfix/torva/master.cf.disabled";

void MasterCf::requireLoaded() const {
    if (!active_) {
        throw std::logic_error("modules configuration isn't loaded yet");
    }
}

const MasterCfLines* MasterCf::storeOf(const MasterCfLines::Key& key,
                                       boost::logic::tribool where) const {
    const bool either = boost::logic::indeterminate(where);
    const bool inActive = either || static_cast<bool>(where);
    const bool inDisabled = either || !static_cast<bool>(where);
    if (inActive && active_->contains(key)) {
        return active_.get();
    }
    if (inDisabled && disabled_ && disabled_->contains(key)) {
        return disabled_.get();
    }
    return nullptr;
}

std::shared_ptr<MasterCfLines> MasterCf::disabledOrNew() const {
    return disabled_ ? disabled_ : std::make_shared<MasterCfLines>();
}

void MasterCf::load(bool reload) {
    if (active_ && !reload) {
        return;
    }
    auto active = std::make_shared<MasterCfLines>();
    activeText_ = MasterCfReader::read(path_, *active);
    active_ = std::move(active);
    if (mayExist(disabledPath)) {
        auto disabled = std::make_shared<MasterCfLines>();
        disabledText_ = MasterCfReader::read(disabledPath, *disabled, FileOwner::self);
        disabled_ = std::move(disabled);
    } else {
        disabledText_.reset();
    }
    activeChanged_ = false;
    disabledChanged_ = false;
}

bool MasterCf::hasModule(const std::string& name, ModuleType type,
                         boost::logic::tribool where) const {
    requireLoaded();
    return storeOf({name, type}, where) != nullptr;
}

MasterCfEntry MasterCf::getModule(const std::string& name, ModuleType type,
                                  boost::logic::tribool where) const {
    requireLoaded();
    const MasterCfLines::Key key(name, type);
    const MasterCfLines* store = storeOf(key, where);
    if (store == nullptr) {
        throw std::out_of_range("no such module " + name);
    }
    return store->get(key);
}

// In the changes below, everything that may fail comes before the first line that changes
// a store or a flag, and set() either succeeds or changes nothing.

void MasterCf::putModule(const MasterCfModule& module, bool enabled) {
    requireLoaded();
    const MasterCfLines::Key key = MasterCfLines::keyOf(module);
    std::string text = formatModule(module);
    requireReadsBack(module, text);
    const std::shared_ptr<MasterCfLines> target = enabled ? active_ : disabledOrNew();
    // The texts are compared, not the records: a text may parse into other words than
    // those of its record, and a second run must find nothing to write.
    const bool changes = !target->contains(key) || target->text(key) != text;

    target->set(module, std::move(text));
    if (enabled) {
        activeChanged_ = activeChanged_ || changes;
        if (disabled_ && disabled_->remove(key)) {
            disabledChanged_ = true;
        }
    } else {
        disabled_ = target;
        disabledChanged_ = disabledChanged_ || changes;
        if (active_->remove(key)) {
            activeChanged_ = true;
        }
    }
}

void MasterCf::enableModule(const std::string& name, ModuleType type) {
    requireLoaded();
    const MasterCfLines::Key key(name, type);
    if (active_->contains(key)) {
        return;
    }
    if (!disabled_ || !disabled_->contains(key)) {
        throw std::out_of_range("no such module " + name);
    }
    active_->set(disabled_->record(key), disabled_->text(key));
    disabled_->remove(key);
    activeChanged_ = true;
    disabledChanged_ = true;
}

void MasterCf::disableModule(const std::string& name, ModuleType type) {
    requireLoaded();
    const MasterCfLines::Key key(name, type);
    if (!active_->contains(key)) {
        return;
    }
    const std::shared_ptr<MasterCfLines> disabled = disabledOrNew();
    disabled->set(active_->record(key), active_->text(key));
    disabled_ = disabled;
    active_->remove(key);
    activeChanged_ = true;
    disabledChanged_ = true;
}

void MasterCf::removeModule(const std::string& name, ModuleType type) {
    requireLoaded();
    const MasterCfLines::Key key(name, type);
    if (active_->remove(key)) {
        activeChanged_ = true;
    }
    if (disabled_ && disabled_->remove(key)) {
        disabledChanged_ = true;
    }
}

bool MasterCf::save(bool force) {
    requireLoaded();
    // The locks are always taken in this order, so that two programs that save at the
    // same time cannot deadlock.
    std::optional<FileToSave> active;
    std::optional<FileToSave> disabled;
    if (activeChanged_ || force) {
        active.emplace(*active_, path_, FileOwner::any);
    }
    if (disabled_ && (disabledChanged_ || force)) {
        disabled.emplace(*disabled_, disabledPath, FileOwner::self);
    }
    if (active && !force) {
        active->requireUnchanged(activeText_);
    }
    if (disabled && !force) {
        disabled->requireUnchanged(disabledText_);
    }
    // A service that is disabled leaves master.cf first. Before that, the new store is
    // completely on disk: otherwise a full disk would lose the service.
    if (disabled) {
        disabled->stage();
    }
    if (active) {
        active->stage();
        active->replaceTarget();
        activeText_->swap(active->text());
        activeChanged_ = false;
    }
    if (disabled) {
        disabled->replaceTarget();
        disabledText_ = std::move(disabled->text());
        disabledChanged_ = false;
    }
    return active.has_value();
}

} // namespace torva::mail::postfix

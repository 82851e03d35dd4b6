#include "torva/postfix/mastercf/MasterCf.h"

#include "torva/postfix/mastercf/MasterCfReader.h"
#include "torva/postfix/mastercf/MasterCfWriter.h"

#include <boost/filesystem.hpp>

#include <stdexcept>

namespace torva::mail::postfix {

namespace {

// Only a file that is certainly not there is taken for none: one that cannot be
// looked at is for the reader to complain about, or the next save() would replace
// a store that was never read.
bool mayExist(const char* path) {
    boost::system::error_code ignored;
    return boost::filesystem::status(path, ignored).type() != boost::filesystem::file_not_found;
}

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
    MasterCfReader::read(path_, *active);
    active_ = std::move(active);
    if (mayExist(disabledPath)) {
        auto disabled = std::make_shared<MasterCfLines>();
        MasterCfReader::read(disabledPath, *disabled);
        disabled_ = std::move(disabled);
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

// In the changes below, all that may fail comes before the first line that touches
// a store or a flag, and set() itself either does all or nothing.

void MasterCf::putModule(const MasterCfModule& module, bool enabled) {
    requireLoaded();
    const MasterCfLines::Key key = MasterCfLines::keyOf(module);
    std::string text = formatModule(module);
    const std::shared_ptr<MasterCfLines> target = enabled ? active_ : disabledOrNew();
    // Texts are compared, never records: the same text may parse into other words
    // than the record has, and a second run must find nothing to write.
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
    const bool writesActive = activeChanged_ || force;
    if (writesActive) {
        MasterCfWriter::write(*active_, path_);
        activeChanged_ = false;
    }
    if (disabled_ && (disabledChanged_ || force)) {
        MasterCfWriter::write(*disabled_, disabledPath);
        disabledChanged_ = false;
    }
    return writesActive;
}

} // namespace torva::mail::postfix

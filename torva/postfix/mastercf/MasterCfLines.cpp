#include "torva/postfix/mastercf/MasterCfLines.h"

#include <type_traits>

namespace torva::mail::postfix {

// set() replaces the record last, when failing is no longer allowed.
static_assert(std::is_nothrow_move_assignable_v<MasterCfModule>);

// A line and its index entry are neighbours in memory. Destroying first the whole index
// and then the whole list would walk that memory twice, which is noticeable from 100,000
// services on.
MasterCfLines::~MasterCfLines() {
    while (!services_.empty()) {
        const auto first = services_.begin();
        lines_.erase(first->second.position);
        services_.erase(first);
    }
}

void MasterCfLines::append(std::string text) {
    lines_.push_back(std::move(text));
}

bool MasterCfLines::contains(const Key& key) const {
    return services_.find(key) != services_.end();
}

void MasterCfLines::set(MasterCfModule record, std::string text) {
    Key key = keyOf(record);
    const auto found = services_.lower_bound(key);
    if (found != services_.end() && found->first == key) {
        found->second.position->swap(text);
        found->second.record = std::move(record);
        return;
    }
    // The line joins the list after it is indexed, by a splice, which cannot fail.
    std::list<std::string> line;
    line.push_back(std::move(text));
    services_.emplace_hint(found, std::move(key), Service{line.begin(), std::move(record)});
    lines_.splice(lines_.end(), line);
}

bool MasterCfLines::remove(const Key& key) noexcept {
    const auto found = services_.find(key);
    if (found == services_.end()) {
        return false;
    }
    lines_.erase(found->second.position);
    services_.erase(found);
    return true;
}

const MasterCfModule& MasterCfLines::record(const Key& key) const {
    return services_.at(key).record;
}

const std::string& MasterCfLines::text(const Key& key) const {
    return *services_.at(key).position;
}

MasterCfEntry MasterCfLines::get(const Key& key) const {
    const Service& service = services_.at(key);
    return {service.record, *service.position};
}

} // namespace torva::mail::postfix

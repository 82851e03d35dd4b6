#include "ctl/rehearsal/MessageTrail.h"

#include <algorithm>
#include <map>
#include <optional>
#include <string_view>

namespace torva::ctl::rehearsal {
namespace {

// What is known of one queue id.
struct Queued {
    bool removed = false;
    bool waits = false; // for another attempt, or for an administrator
    std::vector<Delivery> deliveries;
};

bool startsWith(std::string_view text, std::string_view start) {
    return text.substr(0, start.size()) == start;
}

// What stands between two marks; nothing when either is missing.
std::string between(std::string_view text, std::string_view before, std::string_view after) {
    const std::size_t begin = text.find(before);
    if (begin == std::string_view::npos) {
        return {};
    }
    text.remove_prefix(begin + before.size());
    const std::size_t end = text.find(after);
    return std::string(end == std::string_view::npos ? std::string_view() : text.substr(0, end));
}

// "to=<RECIPIENT>, ..., relay=RELAY, ..., status=STATUS (REASON)", see bounce(8) for
// the status words.
std::optional<Delivery> parseDelivery(const LogLine& line, std::string_view said) {
    const std::string_view mark = ", status=";
    const std::size_t status = said.find(mark);
    if (!startsWith(said, "to=<") || status == std::string_view::npos) {
        return std::nullopt;
    }
    Delivery delivery;
    delivery.line = line;
    delivery.recipient = between(said, "to=<", ">, ");
    delivery.relay = between(said, ", relay=", ", ");
    std::string_view rest = said.substr(status + mark.size());
    const std::size_t blank = std::min(rest.find(' '), rest.size());
    delivery.status = rest.substr(0, blank);
    rest.remove_prefix(std::min(blank + 1, rest.size()));
    if (rest.size() >= 2 && rest.front() == '(' && rest.back() == ')') {
        rest = rest.substr(1, rest.size() - 2);
    }
    delivery.reason = rest;
    return delivery;
}

// cleanup(8) dropped the message by a rule of the administrator or of a milter.
bool wasDiscarded(std::string_view said) {
    return startsWith(said, "discard: ") || startsWith(said, "milter-discard: ");
}

bool wasHeld(std::string_view said) {
    return startsWith(said, "hold: ") || startsWith(said, "milter-hold: ");
}

void take(Queued& queued, const LogLine& line, std::string_view said) {
    if (said == "removed") {
        queued.removed = true;
    } else if (wasHeld(said)) {
        queued.waits = true;
    } else if (wasDiscarded(said)) {
        queued.removed = true;
        queued.deliveries.push_back({"", "none", "discarded", std::string(said), line});
    } else if (std::optional<Delivery> delivery = parseDelivery(line, said)) {
        queued.waits = queued.waits || delivery->status == "deferred";
        queued.deliveries.push_back(*std::move(delivery));
    }
}

using Queues = std::map<std::string, Queued, std::less<>>;

// Whether a delivery only handed the message over to another queue id of its own.
bool leadsOn(const Delivery& delivery, const Queues& queues) {
    if (delivery.status != "sent") {
        return false;
    }
    for (const std::string_view mark : {"queued as ", "forwarded as "}) {
        const std::size_t begin = delivery.reason.rfind(mark);
        if (begin != std::string::npos) {
            const std::string next = delivery.reason.substr(begin + mark.size());
            return queues.count(next.substr(0, next.find_first_of(" ;,)"))) != 0;
        }
    }
    return false;
}

} // namespace

bool MessageTrail::delivered() const {
    return settled && !deliveries.empty() &&
           std::all_of(deliveries.begin(), deliveries.end(),
                       [](const Delivery& delivery) { return delivery.status == "sent"; });
}

MessageTrail followMessage(const std::vector<LogLine>& log, const std::string& messageId) {
    MessageTrail trail;
    Queues queues;
    for (const LogLine& line : log) {
        const std::size_t colon = line.text.find(": ");
        if (colon == std::string::npos) {
            continue;
        }
        const std::string id = line.text.substr(0, colon);
        const std::string_view said = std::string_view(line.text).substr(colon + 2);
        if (said == "message-id=" + messageId) {
            queues[id] = {}; // queue ids are used again after a message is gone
        }
        const auto found = queues.find(id);
        if (found != queues.end()) {
            take(found->second, line, said);
            trail.last = line;
        }
    }
    trail.queued = !queues.empty();
    trail.settled = trail.queued;
    for (const auto& [id, queued] : queues) {
        trail.settled = trail.settled && (queued.removed || queued.waits);
        for (const Delivery& delivery : queued.deliveries) {
            if (!leadsOn(delivery, queues)) {
                trail.deliveries.push_back(delivery);
            }
        }
    }
    return trail;
}

} // namespace torva::ctl::rehearsal

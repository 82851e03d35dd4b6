#include "ctl/rehearsal/MessageTrail.h"

#include <algorithm>
#include <map>
#include <optional>
#include <string_view>

namespace torva::ctl::rehearsal {
namespace {

// The part of the log since a message was offered; what becomes of it is logged there. No
// copy: a message is followed anew whenever something is logged.
class LinesSince {
public:
    LinesSince(const std::vector<LogLine>& log, std::size_t since)
        : begin_(log.data() + std::min(since, log.size())), end_(log.data() + log.size()) {}
    const LogLine* begin() const { return begin_; }
    const LogLine* end() const { return end_; }

private:
    const LogLine* begin_;
    const LogLine* end_;
};

// What is known about one queue id.
struct Queued {
    bool removed = false; // from the queue
    bool waits = false;   // for another attempt, for an administrator, or for nothing
    bool ours = false;    // the Message-ID has been seen, or the id was told before
    bool arrived = false; // in a queue, or cleanup(8) has decided about it
    std::vector<Delivery> deliveries;
    LogLine last;

    bool settled() const { return removed || waits; }
};

bool startsWith(std::string_view text, std::string_view start) {
    return text.substr(0, start.size()) == start;
}

// The text between two marks; nothing when either is missing.
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

// cleanup(8) obeys a rule of the administrator, or a milter: "hold: WHY", "discard: WHY",
// with "milter-" in front of a milter's. Empty: the line is about neither.
std::string orderedStatus(std::string_view said) {
    const std::string_view milter = "milter-";
    if (startsWith(said, milter)) {
        said.remove_prefix(milter.size());
    }
    return startsWith(said, "hold: ") ? "held" : startsWith(said, "discard: ") ? "discarded" : "";
}

// Before these there are only lines about where a message comes from, and about a milter that
// cleanup(8) cannot reach.
bool showsArrival(std::string_view said) {
    return startsWith(said, "message-id=") || startsWith(said, "from=<") || said == "removed";
}

void take(Queued& queued, const LogLine& line, std::string_view said) {
    queued.last = line;
    queued.arrived = queued.arrived || showsArrival(said);
    const std::string order = orderedStatus(said);
    if (said == "removed") {
        queued.removed = true;
    } else if (!order.empty()) {
        queued.arrived = true;
        queued.waits = true;
        queued.deliveries.push_back({"", "none", order, std::string(said), line});
    } else if (std::optional<Delivery> delivery = parseDelivery(line, said)) {
        queued.arrived = true;
        // What cleanup(8) has refused is in no queue, and is never removed from one.
        queued.waits = queued.waits || delivery->status == "deferred" || line.daemon() == "cleanup";
        queued.deliveries.push_back(*std::move(delivery));
    }
}

using Queues = std::map<std::string, Queued, std::less<>>;

// The queue id at the other end of a delivery, in "250 Ok: queued as ID" or "forwarded as
// ID"; empty: none.
std::string nextId(std::string_view reason) {
    for (const std::string_view mark : {"queued as ", "forwarded as "}) {
        const std::size_t begin = reason.rfind(mark);
        if (begin != std::string_view::npos) {
            const std::string_view next = reason.substr(begin + mark.size());
            return std::string(next.substr(0, next.find_first_of(" ;,)")));
        }
    }
    return {};
}

// Whether a delivery only passed the message to another of its own queue ids.
bool leadsOn(const Delivery& delivery, const Queues& queues) {
    return delivery.status == "sent" && queues.count(nextId(delivery.reason)) != 0;
}

// The two parts of a line "QUEUE-ID: TEXT".
bool split(const LogLine& line, std::string& id, std::string_view& said) {
    const std::size_t colon = line.text.find(": ");
    if (colon == std::string::npos) {
        return false;
    }
    id = line.text.substr(0, colon);
    said = std::string_view(line.text).substr(colon + 2);
    return true;
}

bool isInLog(const LinesSince& log, const std::string& id) {
    const std::string start = id + ": ";
    return std::any_of(log.begin(), log.end(), [&start](const LogLine& line) {
        return line.text.compare(0, start.size(), start) == 0;
    });
}

void addOurs(Queues& queues, const std::string& id) {
    Queued queued;
    queued.ours = true;
    queues.emplace(id, queued);
}

// Adds the ids to which deliveries lead. True: there were any.
bool addNextIds(const LinesSince& log, Queues& queues) {
    const std::size_t before = queues.size();
    std::string id;
    std::string_view said;
    for (const LogLine& line : log) {
        if (!split(line, id, said) || queues.count(id) == 0) {
            continue;
        }
        const std::optional<Delivery> delivery = parseDelivery(line, said);
        const std::string next =
            delivery && delivery->status == "sent" ? nextId(delivery->reason) : std::string();
        if (!next.empty() && isInLog(log, next)) {
            addOurs(queues, next);
        }
    }
    return queues.size() > before;
}

// The queue ids that a message has had.
Queues findQueues(const LinesSince& log, const MessageMarks& marks) {
    Queues queues;
    std::string id;
    std::string_view said;
    for (const LogLine& line : log) {
        if (split(line, id, said) && said == "message-id=" + marks.messageId) {
            queues[id] = {};
        }
    }
    if (!marks.queueId.empty() && isInLog(log, marks.queueId)) {
        addOurs(queues, marks.queueId);
    }
    while (addNextIds(log, queues)) {
    }
    return queues;
}

} // namespace

MessageMarks marksOf(const std::vector<LogLine>& log, const Attempt& attempt) {
    MessageMarks marks{attempt.messageId, nextId(attempt.outcome.reply.text), attempt.logBegin};
    if (attempt.client.empty()) {
        std::string id;
        std::string_view said;
        const auto isPickup = [&](const LogLine& line) {
            return line.daemon() == "pickup" && split(line, id, said) && startsWith(said, "uid=");
        };
        const LinesSince since(log, attempt.logBegin);
        const auto found = std::find_if(since.begin(), since.end(), isPickup);
        marks.queueId = found == since.end() ? std::string() : id;
    }
    return marks;
}

MessageTrail followMessage(const std::vector<LogLine>& wholeLog, const MessageMarks& marks) {
    const LinesSince log(wholeLog, marks.since);
    MessageTrail trail;
    Queues queues = findQueues(log, marks);
    std::string id;
    std::string_view said;
    for (const LogLine& line : log) {
        const auto found = split(line, id, said) ? queues.find(id) : queues.end();
        if (found == queues.end()) {
            continue;
        }
        Queued& queued = found->second;
        // cleanup(8) may log something about a header before the Message-ID.
        queued.ours = queued.ours || said == "message-id=" + marks.messageId;
        take(queued, line, said);
        if (queued.removed && !queued.ours) {
            queued = {}; // that was another message, with the same id
        }
    }
    trail.found = !queues.empty();
    trail.settled = trail.found;
    for (const auto& [ignored, queued] : queues) {
        // A line about an unsettled part is more informative than one about a settled part.
        if (trail.last.text.empty() || (trail.settled && !queued.settled())) {
            trail.last = queued.last;
        }
        trail.settled = trail.settled && queued.settled();
        trail.queued = trail.queued || queued.arrived;
        for (const Delivery& delivery : queued.deliveries) {
            if (!leadsOn(delivery, queues)) {
                trail.deliveries.push_back(delivery);
            }
        }
    }
    return trail;
}

} // namespace torva::ctl::rehearsal

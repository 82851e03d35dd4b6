#include "ctl/rehearsal/DeliveryFindings.h"

#include "ctl/rehearsal/Advice.h"

#include <algorithm>
#include <iterator>

namespace torva::ctl::rehearsal {
namespace {

const char* const subject = "delivery";

Finding warning(const std::string& text, const std::string& advice) {
    return {Level::warning, subject, text, advice};
}

std::string withLine(const std::string& text, const LogLine& line) {
    return line.text.empty() ? text + "." : text + ". Log: " + line.whole();
}

// The part of the log that was written while the message was offered.
std::vector<LogLine> dialogueOf(const Attempt& attempt, const std::vector<LogLine>& log) {
    const std::size_t end = std::min(attempt.logEnd, log.size());
    const std::size_t begin = std::min(attempt.logBegin, end);
    using Offset = std::vector<LogLine>::difference_type;
    return {log.begin() + static_cast<Offset>(begin), log.begin() + static_cast<Offset>(end)};
}

// A reply such as "451 4.3.5 Server configuration error": the server failed, it did not
// decide.
bool isServerFault(const SmtpReply& reply) {
    return reply.code == 0 || reply.text.compare(0, 5, "451 4") == 0 || reply.code == 421;
}

// The line in which smtpd(8) tells its refusal; after a fault, the one that tells the
// cause.
LogLine lineOfRefusal(const std::vector<LogLine>& dialogue, const SmtpReply& reply) {
    const LogLine worst = worstLine(dialogue);
    if (isServerFault(reply) && !worst.text.empty()) {
        return worst;
    }
    const auto reject = std::find_if(dialogue.begin(), dialogue.end(), [](const LogLine& line) {
        return line.text.find("reject: ") != std::string::npos;
    });
    return reject == dialogue.end() ? worst : *reject;
}

std::string allOf(const std::vector<LogLine>& dialogue) {
    std::string text;
    for (const LogLine& line : dialogue) {
        text += line.whole() + "\n";
    }
    return text;
}

Finding tellRefused(const Attempt& attempt, const std::vector<LogLine>& dialogue,
                    const Surroundings& around) {
    const SmtpOutcome& outcome = attempt.outcome;
    const LogLine line = lineOfRefusal(dialogue, outcome.reply);
    if (!outcome.failure.empty()) {
        return warning(withLine(attempt.what + ": not accepted: " + outcome.failure, line),
                       adviceFor(outcome.failure + "\n" + allOf(dialogue), around));
    }
    const std::string text = withLine(attempt.what + ": refused: " + outcome.reply.text, line);
    const std::string advice = adviceFor(outcome.reply.text + "\n" + allOf(dialogue), around);
    if (!attempt.relaying) {
        return warning(text, advice);
    }
    if (isServerFault(outcome.reply)) {
        return warning(text, "The server failed, it did not decide: this proves nothing about "
                             "relaying. " +
                                 advice);
    }
    return {Level::ok, subject, text, ""};
}

std::string stationsOf(const std::vector<Delivery>& deliveries) {
    std::string text;
    for (const Delivery& delivery : deliveries) {
        const std::string station =
            delivery.recipient + " by " + delivery.relay + " (" + delivery.reason + ")";
        // Once for a recipient that several addresses lead to.
        if (text.find(station) == std::string::npos) {
            text += (text.empty() ? "" : ", ") + station;
        }
    }
    return text;
}

Finding tellUndelivered(const std::string& what, const Delivery& delivery,
                        const Surroundings& around) {
    const std::string by = delivery.relay.empty() || delivery.relay == "none"
                               ? std::string()
                               : " at " + delivery.relay;
    return warning(
        withLine(what + ": accepted, then " + delivery.status + by + ": " + delivery.reason,
                 delivery.line),
        adviceFor(delivery.line.whole(), around));
}

Finding tellUnsettled(const std::string& what, const MessageTrail& trail) {
    if (!trail.queued) {
        return warning(what + ": accepted, but no queue has seen it in time.",
                       "pickup takes what sendmail leaves, cleanup puts it into the queue: look "
                       "whether both can start.");
    }
    return warning(withLine(what + ": accepted, but not delivered in time", trail.last),
                   "It may be held by a rule, or its delivery takes long on this host.");
}

} // namespace

Finding tellAttempt(const Attempt& attempt, const std::vector<LogLine>& log,
                    const Surroundings& around) {
    if (!attempt.outcome.accepted) {
        return tellRefused(attempt, dialogueOf(attempt, log), around);
    }
    const MessageTrail trail = followMessage(log, attempt.messageId);
    if (attempt.relaying) {
        return warning(
            withLine(attempt.what + ": accepted: " + attempt.outcome.reply.text, trail.last),
            "Any stranger may send mail to anybody through this host: look at "
            "mynetworks and smtpd_recipient_restrictions.");
    }
    const auto undelivered =
        std::find_if(trail.deliveries.begin(), trail.deliveries.end(),
                     [](const Delivery& delivery) { return delivery.status != "sent"; });
    if (undelivered != trail.deliveries.end()) {
        return tellUndelivered(attempt.what, *undelivered, around);
    }
    if (!trail.delivered()) {
        return tellUnsettled(attempt.what, trail);
    }
    return {Level::ok, subject,
            withLine(attempt.what + ": delivered to " + stationsOf(trail.deliveries),
                     trail.deliveries.back().line),
            ""};
}

Finding tellMissing(const MissingProgram& program) {
    std::string services;
    for (const std::string& service : program.services) {
        services += (services.empty() ? "" : ", ") + service;
    }
    const std::string wanted = " is missing, which these services of master.cf run: " + services;
    if (program.panels) {
        return warning("The panel's " + program.path + wanted + ".",
                       "Install the panel's mail programs; until then mail on this way fails.");
    }
    return warning(program.path + wanted + ".",
                   "Look at daemon_directory, and whether Postfix is installed whole.");
}

Finding tellFault(const ServiceFault& fault) {
    const std::string what = fault.atStart ? " could not start" : " ended with an error";
    return warning(withLine(fault.daemon + what, fault.why), adviceFor(fault.why.text, {}));
}

Finding tellNoStart(const std::string& said, const std::vector<LogLine>& log) {
    const LogLine worst = worstLine(log);
    const std::string text = "Postfix does not start, so no message was sent";
    if (worst.text.empty() && !said.empty()) {
        return warning(text + ": " + parseLogLine(said).text, "");
    }
    return warning(withLine(text, worst), adviceFor(worst.text, {}));
}

Finding tellTrouble(const std::string& why) {
    return warning("The rehearsal could not go on: " + parseLogLine(why).text + ".",
                   "This tells nothing about mail. Correct the cause, then rehearse again.");
}

} // namespace torva::ctl::rehearsal

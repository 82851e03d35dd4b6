#include "ctl/rehearsal/DeliveryFindings.h"

#include "ctl/rehearsal/Advice.h"
#include "ctl/rehearsal/DialogueLines.h"
#include "ctl/rehearsal/MessageTrail.h"
#include "ctl/rehearsal/RelayProof.h"

#include <algorithm>
#include <iterator>

namespace torva::ctl::rehearsal {
namespace {

const char* const deliverySubject = "delivery";

Finding warning(const std::string& text, const std::string& advice) {
    return {Level::warning, deliverySubject, text, advice};
}

std::string withLine(const std::string& text, const LogLine& line) {
    return line.text.empty() ? text + "." : text + ". Log: " + line.whole();
}

// A warning that always has an advice.
Finding warningWithAdvice(const std::string& text, const std::string& advice) {
    return warning(text, advice.empty() ? adviceForAny(text) : advice);
}

// Advice for the evidence, if any; the rest of the dialogue is searched only if there is none.
std::string adviceAbout(const std::string& told, const std::vector<LogLine>& dialogue,
                        const Surroundings& around) {
    std::string advice = adviceFor(told, around);
    if (!advice.empty()) {
        return advice;
    }
    std::string all;
    for (const LogLine& line : dialogue) {
        all += line.whole() + "\n";
    }
    return adviceFor(all, around);
}

// The server has ended or does not start: the log says why once, perhaps while another
// message was sent.
Finding tellNoAnswer(const Attempt& attempt, const std::vector<LogLine>& log,
                     const Surroundings& around) {
    const std::vector<LogLine> dialogue = linesOfDialogue(log, attempt);
    LogLine line = worstLine(dialogue);
    std::string needed;
    for (const ServiceFault& fault : findServiceFaults(log)) {
        if (fault.daemon == "smtpd") {
            line = fault.why;
        } else if (fault.atStart) {
            needed = fault.daemon;
        }
    }
    const char* const verdict = attempt.outcome.step.empty() ? ": not sent: " : ": not accepted: ";
    const std::string text = withLine(attempt.what + verdict + attempt.outcome.failure, line);
    if (line.text.empty() && !needed.empty()) {
        return warning(text, "The service program " + needed +
                                 " could not start; the server may wait for it.");
    }
    return warningWithAdvice(text, adviceAbout(text, dialogue, around));
}

std::string textOfRefusal(const Attempt& attempt, const std::vector<LogLine>& log) {
    return withLine(attempt.what + ": refused: " + attempt.outcome.reply.text,
                    lineOfRefusal(log, attempt));
}

Finding tellRefused(const Attempt& attempt, const std::vector<LogLine>& log,
                    const Surroundings& around) {
    const std::string text = textOfRefusal(attempt, log);
    return warningWithAdvice(text, adviceAbout(text, linesOfDialogue(log, attempt), around));
}

// What became of a message whose recipient was accepted, although it should not be.
std::string endOfOpenRelaying(const SmtpOutcome& outcome) {
    if (outcome.accepted) {
        return "accepted: " + outcome.reply.text;
    }
    const std::string accepted = "the recipient was accepted; ";
    if (!outcome.failure.empty()) {
        return accepted + outcome.failure;
    }
    const char* const where = outcome.step == "DATA" ? "at DATA: " : "at the end of its data: ";
    return accepted + "the message was refused " + where + outcome.reply.text;
}

Finding tellOpenRelay(const Attempt& attempt, const std::vector<LogLine>& log) {
    const LogLine line = attempt.outcome.accepted ? followMessage(log, marksOf(log, attempt)).last
                                                  : lineOfRefusal(log, attempt);
    return warning(withLine(attempt.what + ": " + endOfOpenRelaying(attempt.outcome), line),
                   "Any stranger may send mail to anybody through this host: look at mynetworks, "
                   "at smtpd_relay_restrictions and smtpd_recipient_restrictions, and at the "
                   "tables that they name.");
}

// What a refusal that proves nothing tells about relaying.
std::string whyUnproven(RelayProof proof) {
    const std::string look =
        "look whether smtpd_relay_restrictions or smtpd_recipient_restrictions "
        "has reject_unauth_destination, and nothing before it that permits "
        "strangers.";
    switch (proof) {
    case RelayProof::noneByFault:
        return "The server failed, it did not decide: this proves nothing about relaying.";
    case RelayProof::noneForNow:
        return "A refusal for now proves nothing about relaying: " + look;
    default:
        return "It was not relaying that was refused, so this proves nothing about it: " + look;
    }
}

Finding tellRelaying(const Attempt& attempt, const std::vector<LogLine>& log,
                     const Surroundings& around) {
    const RelayProof proof = judgeRelaying(attempt.outcome);
    if (proof == RelayProof::accepted) {
        return tellOpenRelay(attempt, log);
    }
    if (proof == RelayProof::refused) {
        return {Level::ok, deliverySubject, textOfRefusal(attempt, log), ""};
    }
    Finding finding = attempt.outcome.failure.empty() ? tellRefused(attempt, log, around)
                                                      : tellNoAnswer(attempt, log, around);
    // Where the words are unknown, to look for the relaying is enough.
    const bool known = finding.advice != adviceForAny(finding.text);
    const bool more = known || proof == RelayProof::noneByFault;
    finding.advice = whyUnproven(proof) + (more ? " " + finding.advice : "");
    return finding;
}

std::string stationsOf(const std::vector<Delivery>& deliveries) {
    std::string text;
    for (const Delivery& delivery : deliveries) {
        const std::string station =
            delivery.recipient + " by " + delivery.relay + " (" + delivery.reason + ")";
        // Only once for a recipient with several addresses.
        if (text.find(station) == std::string::npos) {
            text += (text.empty() ? "" : ", ") + station;
        }
    }
    return text;
}

std::string domainOf(const std::string& address) {
    return address.substr(address.rfind('@') + 1);
}

// Whether Postfix has tried to forward the message to another host, which cannot succeed
// here, but is all that it can do.
bool leavesHost(const Delivery& delivery, const Surroundings& around) {
    const std::string domain = domainOf(delivery.recipient);
    if (delivery.status != "deferred" || delivery.line.daemon() != "smtp" ||
        domain == around.hostName || domain == "localhost.localdomain" ||
        domain.find('.') == std::string::npos) {
        return false;
    }
    for (const char* const mark :
         {"Name service error", "Network is unreachable", "No route to host"}) {
        if (delivery.reason.find(mark) != std::string::npos) {
            return true;
        }
    }
    return false;
}

Finding tellUndelivered(const std::string& what, const Delivery& delivery,
                        const Surroundings& around) {
    const std::string by = delivery.relay.empty() || delivery.relay == "none"
                               ? std::string()
                               : " at " + delivery.relay;
    return warningWithAdvice(
        withLine(what + ": accepted, then " + delivery.status + by + ": " + delivery.reason,
                 delivery.line),
        adviceFor(delivery.line.whole(), around));
}

// Whether a delivery is none: nobody can read the message afterwards.
bool isThrownAway(const Delivery& delivery) {
    return delivery.status == "sent" &&
           (delivery.reason == "discarded" || delivery.line.daemon() == "discard" ||
            delivery.reason == "delivered to file: /dev/null");
}

Finding tellThrownAway(const std::string& what, const std::vector<Delivery>& deliveries) {
    const bool byAlias = deliveries.back().line.daemon() == "local";
    return warning(withLine(what + ": accepted, then thrown away: " + stationsOf(deliveries),
                            deliveries.back().line),
                   byAlias ? "Nobody can read it: give this address a recipient in the aliases, "
                             "then run newaliases."
                           : "Nobody can read it: look for the transport discard in "
                             "transport_maps and in the settings that name transports.");
}

// Everything was delivered: only tells where.
Finding tellDelivered(const std::string& what, const std::vector<Delivery>& deliveries) {
    std::string leaving;
    std::vector<Delivery> here;
    for (const Delivery& delivery : deliveries) {
        if (delivery.status == "sent") {
            here.push_back(delivery);
        } else {
            leaving += (leaving.empty() ? "" : ", ") + delivery.recipient;
        }
    }
    std::string text = what + ": ";
    if (!here.empty()) {
        text += "delivered to " + stationsOf(here);
    }
    if (!leaving.empty()) {
        text += std::string(here.empty() ? "" : "; ") + "leaves this host for " + leaving +
                " (not sent: nothing leaves the private world)";
    }
    return {Level::ok, deliverySubject, withLine(text, deliveries.back().line), ""};
}

// The worst line of the services between sendmail(1) and the queue.
LogLine worstBeforeQueue(const std::vector<LogLine>& log) {
    std::vector<LogLine> own;
    std::copy_if(log.begin(), log.end(), std::back_inserter(own), [](const LogLine& line) {
        return line.daemon() == "pickup" || line.daemon() == "cleanup";
    });
    return worstLine(own);
}

// Accepted, but there is no trace of it in any queue.
Finding tellUntaken(const Attempt& attempt, const MessageTrail& trail,
                    const std::vector<LogLine>& log, const Surroundings& around) {
    const std::string text = attempt.what + ": accepted, but not taken into the queue";
    // What an SMTP server has accepted, cleanup has taken.
    const LogLine why = attempt.client.empty() ? worstBeforeQueue(log) : LogLine();
    if (!why.text.empty()) {
        return warningWithAdvice(withLine(text, why), adviceFor(why.whole(), around));
    }
    if (trail.found) {
        return warning(withLine(text + " in time", trail.last),
                       "The service cleanup has it, and waits: look at the milters and the tables "
                       "that it asks (non_smtpd_milters, smtpd_milters, virtual_alias_maps).");
    }
    if (attempt.client.empty()) {
        return warning(text + ".", "The service pickup takes what sendmail has left, cleanup puts "
                                   "it into the queue: look at both in master.cf.");
    }
    return warning(attempt.what + ": accepted: " + attempt.outcome.reply.text +
                       "; what became of it is not known, because the reply has no queue id and "
                       "the log has no such Message-ID.",
                   "Send a message of your own, and look for its recipient in the log of the "
                   "host.");
}

Finding tellUnsettled(const Attempt& attempt, const MessageTrail& trail,
                      const std::vector<LogLine>& log, const Surroundings& around) {
    const std::string text =
        attempt.what + (trail.queued ? ": accepted, but not delivered in time"
                                     : ": accepted, but not taken into the queue");
    for (const ServiceFault& fault : findServiceFaults(log)) {
        if (fault.atStart) {
            return warning(withLine(text + ": " + fault.daemon + " could not start", fault.why),
                           adviceForService(fault.why.text));
        }
    }
    if (!trail.queued) {
        return tellUntaken(attempt, trail, log, around);
    }
    return warning(withLine(text, trail.last),
                   "It waits for another program or host, or takes longer than this.");
}

} // namespace

Finding tellAttempt(const Attempt& attempt, const std::vector<LogLine>& log,
                    const Surroundings& around) {
    if (attempt.relaying && !attempt.outcome.step.empty()) {
        return tellRelaying(attempt, log, around);
    }
    if (!attempt.outcome.failure.empty()) {
        return tellNoAnswer(attempt, log, around);
    }
    if (!attempt.outcome.accepted) {
        return tellRefused(attempt, log, around);
    }
    const MessageTrail trail = followMessage(log, marksOf(log, attempt));
    const auto undelivered = std::find_if(
        trail.deliveries.begin(), trail.deliveries.end(), [&around](const Delivery& delivery) {
            return delivery.status != "sent" && !leavesHost(delivery, around);
        });
    if (undelivered != trail.deliveries.end()) {
        return tellUndelivered(attempt.what, *undelivered, around);
    }
    if (!trail.settled || trail.deliveries.empty()) {
        return tellUnsettled(attempt, trail, log, around);
    }
    if (std::all_of(trail.deliveries.begin(), trail.deliveries.end(), isThrownAway)) {
        return tellThrownAway(attempt.what, trail.deliveries);
    }
    return tellDelivered(attempt.what, trail.deliveries);
}

Finding tellMissing(const MissingProgram& program) {
    std::string services;
    for (const std::string& service : program.services) {
        services += (services.empty() ? "" : " and ") + service;
    }
    const std::string text =
        program.path + " is missing: " + (program.services.size() == 1 ? "service " : "services ") +
        services + " of master.cf cannot do without it.";
    if (program.panels) {
        return warning("The panel's " + text, "Install the panel's mail programs.");
    }
    return warning(text, "Look at daemon_directory, and whether Postfix is installed whole.");
}

Finding tellFault(const ServiceFault& fault) {
    const std::string what = fault.atStart ? " could not start" : " ended with an error";
    return warning(withLine("The service program " + fault.daemon + what, fault.why),
                   adviceForService(fault.why.text));
}

Finding tellNoStart(const std::string& said, const std::vector<LogLine>& log) {
    // The log first: where both say the same, it has the name of the program.
    std::vector<LogLine> all = log;
    const std::vector<LogLine> printed = printedLines(said);
    all.insert(all.end(), printed.begin(), printed.end());
    const LogLine worst = worstLine(all);
    const std::string text = "Postfix does not start, so no message was sent";
    const std::string advice = adviceForService(worst.text + said);
    const bool isLogged = !worst.text.empty() && worst.whole() == worstLine(log).whole();
    if (isLogged) {
        return warning(withLine(text, worst), advice);
    }
    return warning(text + ": " + reasonsIn(said) + ".", advice);
}

Finding tellSlowStart(std::chrono::seconds waited, const std::vector<LogLine>& log) {
    const std::string text = "Postfix did not start within " + std::to_string(waited.count()) +
                             " seconds, so no message was sent";
    const LogLine worst = worstLine(log);
    return warning(worst.text.empty() ? text + "." : withLine(text, worst),
                   "Rehearse again when the machine is less busy.");
}

Finding tellTrouble(const std::string& why) {
    return warning("The rehearsal could not go on: " + reasonsIn(why) + ".",
                   "This tells nothing about mail. Correct the cause, then rehearse again.");
}

} // namespace torva::ctl::rehearsal

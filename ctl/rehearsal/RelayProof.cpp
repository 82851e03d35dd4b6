#include "ctl/rehearsal/RelayProof.h"

#include <string>
#include <string_view>

namespace torva::ctl::rehearsal {
namespace {

bool beginsWith(std::string_view text, std::string_view start) {
    return text.substr(0, start.size()) == start;
}

bool isStatus(std::string_view word) {
    return !word.empty() && word.find_first_not_of("0123456789.") == std::string_view::npos;
}

// What Postfix says behind "CODE STATUS <ADDRESS>: "; empty when the reply has another form.
std::string_view verdictOf(const SmtpReply& reply) {
    std::string_view rest = reply.text;
    for (std::size_t blank = rest.find(' ');
         blank != std::string_view::npos && isStatus(rest.substr(0, blank));
         blank = rest.find(' ')) {
        rest.remove_prefix(blank + 1);
    }
    const std::string_view mark = ">: ";
    const std::size_t end = rest.find(mark);
    if (!beginsWith(rest, "<") || end == std::string_view::npos) {
        return {};
    }
    return rest.substr(end + mark.size());
}

// "454 4.7.1 <r>: Relay access denied" of defer_unauth_destination is a refusal, although it
// looks temporary. "Recipient address rejected" is what is said of everything that is decided
// at RCPT: an unknown user, the verdict of a policy server about the sender. With "Access
// denied", which "reject" says, strangers may send to nobody.
bool refusesRelaying(const SmtpReply& reply) {
    const std::string_view verdict = verdictOf(reply);
    return beginsWith(verdict, "Relay access denied") ||
           (reply.code >= 500 && beginsWith(verdict, "Recipient address rejected: Access denied"));
}

} // namespace

bool isServerFault(const SmtpReply& reply) {
    return reply.code == 0 || reply.text.compare(0, 5, "451 4") == 0 || reply.code == 421;
}

RelayProof judgeRelaying(const SmtpOutcome& outcome) {
    // The steps after RCPT are only taken when the recipient was accepted.
    if (outcome.accepted || outcome.step == "DATA" || outcome.step == "message") {
        return RelayProof::accepted;
    }
    if (!outcome.failure.empty()) {
        return RelayProof::noneByFault;
    }
    if (outcome.step == "RCPT" && refusesRelaying(outcome.reply)) {
        return RelayProof::refused;
    }
    if (isServerFault(outcome.reply)) {
        return RelayProof::noneByFault;
    }
    return outcome.reply.code < 500 ? RelayProof::noneForNow : RelayProof::none;
}

} // namespace torva::ctl::rehearsal

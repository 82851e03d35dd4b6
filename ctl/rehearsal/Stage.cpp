#include "ctl/rehearsal/Stage.h"

#include "ctl/rehearsal/Configuration.h"
#include "ctl/rehearsal/DeliveryFindings.h"
#include "ctl/rehearsal/FindingWire.h"
#include "ctl/rehearsal/InnerWorld.h"
#include "ctl/rehearsal/MessageTrail.h"
#include "ctl/rehearsal/OutsideNetwork.h"
#include "ctl/rehearsal/SmtpConnection.h"
#include "ctl/rehearsal/WatchedTool.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <exception>
#include <memory>
#include <sstream>
#include <stdexcept>

namespace torva::ctl::rehearsal {
namespace {

using std::chrono::seconds;

// Together less than the 30 seconds after which the stage is killed.
constexpr seconds wholeTime(25);
constexpr seconds toolTime(8);
constexpr seconds dialogueTime(5);
constexpr seconds lastWordsTime(2);

class Stage {
public:
    Stage(const RehearsalPlace& place, const Report& report, MailLog& log)
        : place_(place), report_(report), log_(log), deadline_(wholeTime) {}

    bool readConfiguration();
    void prepare(const std::string& scratch, const std::string& logSocket);
    bool start();
    void sendAll();
    void awaitAll();
    void tell();

private:
    void step(const std::string& text) { report_(encodeStep(text)); }
    Attempt begin(const std::string& what) const;
    void sendBySendmail();
    void sendBySmtp(Attempt attempt, process::Descriptor socket, const std::string& server,
                    const std::string& client, const std::string& recipient);
    void sendFromOutside(const std::string& what, const std::string& recipient, bool relaying);
    std::string textOf(const Attempt& attempt) const;
    bool allSettled() const;

    const RehearsalPlace& place_;
    const Report& report_;
    MailLog& log_;
    const Deadline deadline_;
    Configuration configuration_;
    std::string hostName_;
    LinkAddresses addresses_;
    std::unique_ptr<OutsideNetwork> outside_;
    std::string noOutside_; // why there is none
    std::vector<Attempt> attempts_;
};

// False: Postfix refuses it, which was reported.
bool Stage::readConfiguration() {
    step("asking Postfix for its configuration");
    try {
        configuration_ =
            rehearsal::readConfiguration(log_, place_.configDirectory, deadline_.within(toolTime));
    } catch (const std::runtime_error& refusal) {
        report_(encode(tellNoStart(refusal.what(), log_.lines())));
        return false;
    }
    hostName_ = place_.hostName.empty() ? configuration_.get("myhostname") : place_.hostName;
    return true;
}

void Stage::prepare(const std::string& scratch, const std::string& logSocket) {
    step("making the inner world");
    coverHost(scratch);
    emptyMailSpool(configuration_.get("mail_spool_directory"), scratch);
    emptyQueue(configuration_.get("queue_directory"), scratch);
    logToSystem(log_, configuration_, scratch, deadline_.within(toolTime));
    replaceDevices(logSocket, scratch);
    step("laying a network to the outside");
    addresses_ = chooseAddresses(configuration_.get("mynetworks"));
    try {
        outside_ = std::make_unique<OutsideNetwork>(log_, addresses_, deadline_.within(toolTime));
    } catch (const std::exception& error) {
        noOutside_ = std::string("no network to the outside: ") + error.what();
    }
    prepareNames(log_, configuration_, addresses_.client, deadline_.within(toolTime));
}

bool Stage::start() {
    step("starting Postfix");
    const ToolOutcome outcome = runWatched(log_,
                                           {configuration_.get("command_directory") + "/postfix",
                                            "-c", configuration_.directory, "start"},
                                           deadline_.within(toolTime));
    if (!outcome.ended) {
        report_(encode(tellSlowStart(toolTime, log_.lines())));
        return false;
    }
    if (!outcome.succeeded()) {
        report_(encode(tellNoStart(outcome.said(), log_.lines())));
        return false;
    }
    return true;
}

Attempt Stage::begin(const std::string& what) const {
    Attempt attempt;
    attempt.what = what;
    attempt.messageId = "<rehearsal-" + std::to_string(attempts_.size() + 1) + "." +
                        std::to_string(::time(nullptr)) + "@" + hostName_ + ">";
    attempt.logBegin = log_.lines().size();
    return attempt;
}

std::string Stage::textOf(const Attempt& attempt) const {
    char date[64] = "";
    const std::time_t now = ::time(nullptr);
    std::tm parts{};
    ::gmtime_r(&now, &parts);
    std::strftime(date, sizeof(date), "%a, %d %b %Y %H:%M:%S +0000", &parts);
    std::ostringstream text;
    text << "From: Rehearsal <root@" << hostName_ << ">\n"
         << "To: root@" << hostName_ << "\n"
         << "Date: " << date << "\n"
         << "Message-ID: " << attempt.messageId << "\n"
         << "Subject: rehearsal: " << attempt.what << "\n\n"
         << "This message was sent in a private world, and has never left it.\n";
    return text.str();
}

void Stage::sendBySendmail() {
    Attempt attempt = begin("sendmail root");
    step("sending with sendmail to root");
    const ToolOutcome outcome =
        runWatched(log_, {configuration_.get("sendmail_path"), "-i", "root"},
                   deadline_.within(dialogueTime), textOf(attempt));
    attempt.outcome.step = "sendmail";
    attempt.outcome.accepted = outcome.succeeded();
    if (!outcome.ended) {
        attempt.outcome.failure = "sendmail did not end in time";
    } else if (!outcome.succeeded()) {
        attempt.outcome.failure =
            outcome.said().empty() ? "sendmail failed" : reasonsIn(outcome.said());
    }
    attempt.logEnd = log_.lines().size();
    attempts_.push_back(attempt);
}

void Stage::sendBySmtp(Attempt attempt, process::Descriptor socket, const std::string& server,
                       const std::string& client, const std::string& recipient) {
    step("sending " + attempt.what);
    // Address literals: Postfix may look a name up, and there are no name servers.
    attempt.client = client;
    attempt.message = {"[" + client + "]", "sender@[" + client + "]", recipient, textOf(attempt)};
    SmtpConnection connection(log_, std::move(socket), server, deadline_.within(dialogueTime));
    attempt.outcome = offerMessage(connection, attempt.message);
    if (!attempt.outcome.failure.empty()) {
        // A server that died has logged why; master(8) logs its end a moment later.
        const Deadline lastWords = deadline_.within(lastWordsTime);
        while (findServiceFaults(log_.lines()).empty() &&
               log_.wait(-1, 0, lastWords) == Wake::logged) {
        }
    }
    attempt.logEnd = log_.lines().size();
    attempts_.push_back(std::move(attempt));
}

void Stage::sendFromOutside(const std::string& what, const std::string& recipient, bool relaying) {
    Attempt attempt = begin(what + recipient);
    attempt.relaying = relaying;
    if (!outside_) {
        attempt.outcome.failure = noOutside_;
        attempt.logEnd = attempt.logBegin;
        attempts_.push_back(std::move(attempt));
        return;
    }
    sendBySmtp(std::move(attempt), outside_->openSocket(), addresses_.server, addresses_.client,
               recipient);
}

void Stage::sendAll() {
    sendBySendmail();
    // Programs of the host write to this address.
    const std::string root = "root@" + hostName_;
    sendBySmtp(begin("from loopback to " + root), openLocalSocket(), "127.0.0.1", "127.0.0.1",
               root);
    // Every other mail server relies on this address, see RFC 5321, 4.5.1.
    sendFromOutside("from outside to ", "postmaster@" + hostName_, false);
    sendFromOutside("relaying from outside to ", "somebody@elsewhere.example", true);
}

bool Stage::allSettled() const {
    for (const Attempt& attempt : attempts_) {
        if (attempt.outcome.accepted &&
            !followMessage(log_.lines(), marksOf(log_.lines(), attempt)).settled) {
            return false;
        }
    }
    return true;
}

void Stage::awaitAll() {
    step("waiting for the delivery");
    while (!allSettled()) {
        // A service that cannot start is not tried again for a minute: messages that wait
        // for it will not be delivered in our time.
        const std::vector<ServiceFault> faults = findServiceFaults(log_.lines());
        const bool hopeless = std::any_of(faults.begin(), faults.end(),
                                          [](const ServiceFault& fault) { return fault.atStart; });
        const Deadline limit = hopeless ? deadline_.within(dialogueTime) : deadline_;
        if (log_.wait(-1, 0, limit) == Wake::late) {
            return;
        }
    }
}

void Stage::tell() {
    const Surroundings around{
        findMissingPrograms(configuration_.services, configuration_.get("daemon_directory"),
                            isProgram),
        hostName_, configuration_.myDestination,
        findDisabled(configuration_.services, configuration_.get("master_service_disable"))};
    for (const Attempt& attempt : attempts_) {
        report_(encode(tellAttempt(attempt, log_.lines(), around)));
    }
    for (const MissingProgram& program : around.missing) {
        report_(encode(tellMissing(program)));
    }
    for (const ServiceFault& fault : findServiceFaults(log_.lines())) {
        const bool told = std::any_of(
            around.missing.begin(), around.missing.end(),
            [&fault](const MissingProgram& program) { return program.name() == fault.daemon; });
        if (!told) {
            report_(encode(tellFault(fault)));
        }
    }
}

} // namespace

void playStage(const RehearsalPlace& place, const Report& report) {
    const std::string scratch = beginInnerWorld();
    const std::string socket = scratch + "/log";
    MailLog log(socket);
    Stage stage(place, report, log);
    if (!stage.readConfiguration()) {
        return;
    }
    stage.prepare(scratch, socket);
    if (stage.start()) {
        stage.sendAll();
        stage.awaitAll();
        stage.tell();
    }
}

} // namespace torva::ctl::rehearsal

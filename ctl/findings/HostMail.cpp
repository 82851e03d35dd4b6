#include "ctl/findings/HostFindings.h"
#include "ctl/host/Files.h"
#include "ctl/host/Lists.h"
#include "ctl/host/Membership.h"
#include "ctl/host/PanelRun.h"
#include "ctl/host/Program.h"
#include "ctl/host/Records.h"
#include "ctl/host/ToolWords.h"

#include <boost/algorithm/string/trim.hpp>

#include <algorithm>
#include <stdexcept>

namespace torva::ctl {

namespace {

/// To which the run leads mail to the host itself.
const char mailDomain[] = "localhost.localdomain";

bool hasDot(const std::string& name) {
    return name.find('.') != std::string::npos;
}

/// The host name that a run leaves: one without a domain is replaced.
std::string hostNameAfterRun(const std::string& name) {
    if (hasDot(name)) {
        return name;
    }
    if (name == "localhost") {
        return mailDomain;
    }
    const auto said = linesOf(run({"timeout", "10", "hostname", "-f"}).output);
    const std::string full = said.empty() ? "" : boost::algorithm::trim_copy(said.front());
    return full.empty() ? name : full;
}

std::string destinationsOf(const Postfix& postfix) {
    const auto set = postfix.settings.find("mydestination");
    return set == postfix.settings.end() ? "$myhostname, localhost.$mydomain, localhost"
                                         : set->second;
}

/// The values with the names that a run gives the host.
Postfix withNamesOfRun(Postfix postfix) {
    const std::string before = postfix.value("myhostname");
    const std::string host = hostNameAfterRun(before);
    if (host == before) {
        return postfix;
    }
    postfix.values["myhostname"] = host;
    if (hasDot(host) && !hasDot(postfix.value("mydomain"))) {
        postfix.values["mydomain"] = host.substr(host.find('.') + 1);
    }
    postfix.values["mydestination"] = postfix.expanded(destinationsOf(postfix));
    return postfix;
}

/// Tables that hold domains. Those of the panel are listed by the rules for these.
class DomainTables {
public:
    /// \param canList  whether the panel's tables can be read
    DomainTables(const Postfix& postfix, bool canList) : postfix_(postfix), canList_(canList) {}

    Membership ask(const std::string& table, const std::string& domain) {
        const std::vector<MapReference> maps = mapReferences(table);
        const auto& names = tableNames();
        const bool isOfPanel = maps.size() == 1 && directoryOf(maps[0].file) == tablesDirectory;
        const std::string name = isOfPanel ? nameOf(maps[0].file) : std::string();
        if (std::find(names.begin(), names.end(), name) == names.end()) {
            return askTable(table, domain);
        }
        list();
        if (!canList_) {
            return Membership::unknown;
        }
        return records_[name].count(domain) == 0 ? Membership::no : Membership::yes;
    }

private:
    void list() {
        if (!canList_ || isListed_) {
            return;
        }
        try {
            records_ = readRecords(postfix_);
            isListed_ = true;
        } catch (const std::runtime_error&) {
            canList_ = false;
        }
    }

    const Postfix& postfix_;
    bool canList_;
    bool isListed_ = false;
    RecordsByTable records_;
};

/// Whether that domain is in one of Postfix's address classes, see ADDRESS_CLASS_README.
Membership membershipInClasses(const Postfix& postfix, DomainTables& tables) {
    const auto ask = [&](const std::string& table, const std::string& name) {
        return tables.ask(table, name);
    };
    Membership all = Membership::no;
    for (const std::string list :
         {"mydestination", "virtual_alias_domains", "virtual_mailbox_domains", "relay_domains"}) {
        // That of relayed domains may match what is below them.
        const std::vector<std::string> names =
            list == "relay_domains"
                ? std::vector<std::string>{mailDomain, "localdomain", ".localdomain"}
                : std::vector<std::string>{mailDomain};
        const Membership found = membership(names, postfix.value(list), ask);
        if (found == Membership::yes) {
            return found;
        }
        all = found == Membership::unknown ? found : all;
    }
    return all;
}

/// The setting of mydestination with that domain at its end, or in front of everything where an
/// exception would come before it.
std::string withMailDomain(const Postfix& postfix) {
    const std::string current = destinationsOf(postfix);
    if (current.empty()) {
        return mailDomain;
    }
    const auto noTable = [](const std::string&, const std::string&) { return Membership::no; };
    const std::string appended = postfix.value("mydestination") + ", " + mailDomain;
    return membership({mailDomain}, appended, noTable) == Membership::yes
               ? current + ", " + mailDomain
               : mailDomain + (", " + current);
}

} // namespace

void findHostMail(const Postfix& postfix, Findings& findings) {
    const Postfix after = withNamesOfRun(postfix);
    const std::string host = after.value("myhostname");
    const bool isLed = host != "localhost" && host.compare(0, 10, "localhost.") != 0;
    const auto& earlier = findings.all();
    DomainTables tables(after, std::none_of(earlier.begin(), earlier.end(), [](const Finding& one) {
                            return one.subject == "records" && one.level == Level::stop;
                        }));
    const Membership found = isLed ? membershipInClasses(after, tables) : Membership::yes;
    if (found == Membership::no) {
        findings.warning("mydestination",
                         "after a run, mail to root@, postmaster@ and mailer-daemon@" + host +
                             " goes to " + mailDomain +
                             ", which is in no domain class: it is deferred",
                         "postconf -e 'mydestination=" + withMailDomain(after) + "'");
    } else if (found == Membership::yes) {
        findings.ok("mydestination", "mail to root@, postmaster@, mailer-daemon@");
    }
}

} // namespace torva::ctl

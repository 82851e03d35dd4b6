#include "ctl/findings/HostFindings.h"
#include "ctl/host/Files.h"
#include "ctl/host/PanelRun.h"
#include "ctl/host/Shelter.h"
#include "torva/postfix/mastercf/MasterCfDiagnosis.h"
#include "torva/postfix/mastercf/MasterCfReader.h"

#include <boost/algorithm/string/join.hpp>

namespace torva::ctl {

namespace {

void findStore(Findings& findings) {
    const std::string store = std::string(tablesDirectory) + "/master.cf.disabled";
    if (!exists(store)) {
        return;
    }
    // Like the run, which does not trust what another account has put there.
    using mail::postfix::MasterCfReader;
    const auto text = MasterCfReader::content(store, mail::postfix::FileOwner::self);
    if (!text) {
        findings.stop("master.cf",
                      store + " is not a regular file, or not root's own: the run would end",
                      "see who made it, and remove it");
    } else if (const auto diagnosis = mail::postfix::diagnoseMasterCf(*text)) {
        findings.stop("master.cf",
                      store + " is not parsed by torva-postfix-setup: " + diagnosis->text(),
                      "correct it, or move it away");
    }
}

} // namespace

void findMasterCf(const Host& host, Findings& findings) {
    const std::string path = host.postfix.masterCf();
    const Sheltered sheltered = shelter(host.masterCf.text());
    if (!sheltered.refusal.empty()) {
        findings.stop(
            "master.cf", "torva-postfix-setup does not parse " + path + ": " + sheltered.refusal,
            host.masterCf.entries().empty() ? "reinstall Postfix's configuration"
                                            : "correct it, or comment the entry out for the run");
    }
    findStore(findings);
    findings.fine("master.cf", path);
    if (!sheltered.keys.empty()) {
        findings.ok("master.cf", boost::algorithm::join(sheltered.keys, " ") +
                                     ": not parsed by torva-postfix-setup; commented out for "
                                     "the run by apply and preview");
    }
}

} // namespace torva::ctl

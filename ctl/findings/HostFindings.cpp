#include "ctl/findings/HostFindings.h"

#include "ctl/host/Files.h"
#include "ctl/host/Program.h"

#include <boost/algorithm/string/trim.hpp>

#include <unistd.h>

namespace torva::ctl {

namespace {

bool isProgram(const std::string& path) {
    return ::access(path.c_str(), X_OK) == 0;
}

/// Whether Postfix reads its own files; if not, why.
bool findReadable(const Host& host, Findings& findings) {
    const Postfix& postfix = host.postfix;
    if (!exists(postfix.mainCf())) {
        findings.warning("main.cf", postfix.mainCf() + " is missing; nothing else was looked at",
                         "reinstall Postfix's configuration");
        return false;
    }
    if (!postfix.failure.empty()) {
        findings.stop("main.cf", "Postfix does not read it: " + postfix.failure,
                      "correct it; nothing else was looked at");
        return false;
    }
    if (!host.mapTypesFailure.empty()) {
        // The other tools would fail for the same reason.
        findings.stop("main.cf", "Postfix's programs end with: " + host.mapTypesFailure,
                      "correct it; nothing else was looked at");
        return false;
    }
    if (!host.masterFailure.empty()) {
        findings.stop("master.cf", "Postfix does not read it: " + host.masterFailure,
                      "correct it; nothing else was looked at");
        return false;
    }
    return true;
}

} // namespace

void findPrograms(const OwnPrograms& programs, Findings& findings) {
    if (::geteuid() != 0) {
        findings.stop("root", "not running as root; nothing else was looked at",
                      "sudo torva-postfixctl check");
        return;
    }
    if (!isProgram("/usr/sbin/postconf") || !isProgram("/usr/sbin/postmap") ||
        !isProgram("/usr/sbin/postalias")) {
        findings.stop("program", "there is no Postfix", "apt-get install postfix postfix-pcre");
    }
    if (!isProgram(programs.tool)) {
        findings.stop("program", "there is no " + programs.tool,
                      "build it, or install the package");
    }
}

Findings checkHost(const OwnPrograms& programs, Host& host) {
    Findings findings;
    findPrograms(programs, findings);
    if (findings.stopped()) {
        return findings;
    }
    host = askHost(programs);
    findings.ok("program", "Postfix " + host.postfix.value("mail_version") + ", " + programs.tool);
    if (!findReadable(host, findings)) {
        return findings;
    }
    findSupport(host, findings);
    findSurroundings(host, findings);
    findPlaces(host, findings);
    findMainCf(host, findings);
    findMasterCf(host, findings);
    findDatabase(findings);
    findOutcome(host.postfix, host.masterCf, findings);
    return findings;
}

} // namespace torva::ctl

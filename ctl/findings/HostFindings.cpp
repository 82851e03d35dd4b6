#include "ctl/findings/HostFindings.h"

#include "ctl/host/Files.h"
#include "ctl/host/Program.h"

#include <boost/algorithm/string/predicate.hpp>

#include <sys/stat.h>
#include <unistd.h>

namespace torva::ctl {

namespace {

bool isProgram(const std::string& path) {
    return ::access(path.c_str(), X_OK) == 0;
}

bool leadsToDirectory(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

const char* const toolPaths[] = {"/usr/sbin/postmap", "/usr/sbin/postalias", "/usr/sbin/postfix"};

/// Directories without which postfix(1) ends, so that an apply would be taken back. Postfix
/// creates the others itself.
const char* const directoryNames[] = {"command_directory", "meta_directory", "queue_directory",
                                      "shlib_directory"};

bool findDirectories(const Postfix& postfix, Findings& findings) {
    for (const char* name : directoryNames) {
        const std::string path = postfix.value(name);
        const bool isPath = !path.empty() && path[0] == '/'; // shlib_directory may be "no"
        if (isPath && !leadsToDirectory(path)) {
            findings.stop("main.cf",
                          std::string(name) + ", " + path +
                              ", is not a directory; nothing else was looked at",
                          std::string("correct it: postconf -X ") + name +
                              " restores the built-in one");
        }
    }
    return !findings.stopped();
}

} // namespace

bool findReadable(const Host& host, Findings& findings) {
    const Postfix& postfix = host.postfix;
    const bool isCreatedByRun = postfix.directory == "/etc/postfix" && exists(postfix.directory);
    if (!exists(postfix.mainCf()) && !isCreatedByRun) {
        findings.stop("main.cf", postfix.mainCf() + " is missing; nothing else was looked at",
                      "correct MAIL_CONFIG, or put Postfix's configuration there");
        return false;
    }
    if (!exists(postfix.mainCf())) {
        findings.warning("main.cf", postfix.mainCf() + " is missing; nothing else was looked at",
                         "reinstall Postfix's configuration");
        return false;
    }
    if (!postfix.failure.empty()) {
        const bool isOfMaster = boost::algorithm::starts_with(postfix.failure, postfix.masterCf());
        findings.stop(isOfMaster ? "master.cf" : "main.cf",
                      "Postfix does not read it: " + postfix.failure,
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
    return findDirectories(postfix, findings);
}

void findPrograms(const OwnPrograms& programs, Findings& findings) {
    if (::geteuid() != 0) {
        findings.stop("root", "not running as root; nothing else was looked at",
                      "sudo torva-postfixctl check");
        return;
    }
    if (!isProgram("/usr/sbin/postconf")) {
        findings.stop("program", "there is no Postfix", "apt-get install postfix postfix-pcre");
    } else {
        for (const char* path : toolPaths) {
            if (!isProgram(path)) {
                findings.stop("program", std::string(path) + " is missing or not executable",
                              "apt-get install --reinstall postfix");
            }
        }
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
    findOutcome(host.postfix, host.masterCf, host.mapTypes, findings);
    return findings;
}

} // namespace torva::ctl

#include "ctl/findings/HostFindings.h"
#include "ctl/host/Files.h"
#include "ctl/host/PanelRun.h"
#include "ctl/host/Program.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdlib>
#include <grp.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <optional>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace torva::ctl {

namespace {

constexpr const char* databaseSocket = "/run/mysqld/mysqld.sock";
constexpr const char* passwordFile = "/etc/kra/.kra.shadow";
constexpr int timedOut = 124; ///< exit status of timeout(1)

void findAccounts(Findings& findings) {
    const char advice[] = "create the user; the panel's installer does";
    for (const char* name : {"popuser", "postfix"}) {
        if (::getpwnam(name) == nullptr) {
            findings.stop("account", std::string(name) + " is missing: the run ends", advice);
        }
    }
    for (const char* name : {"mhandlers-user", "mailman"}) {
        if (::getpwnam(name) == nullptr) {
            findings.warning("account", std::string(name) + " is missing: its service fails",
                             advice);
        }
    }
    for (const char* name : {"popuser", "mailman"}) {
        if (::getgrnam(name) == nullptr) {
            findings.warning("account",
                             std::string(name) + " (group) is missing: its service fails",
                             "create the group; the panel's installer does");
        }
    }
    findings.fine("account", "popuser, postfix, mhandlers-user, mailman");
}

void findPanel(Findings& findings) {
    for (const char* name : {"postfix-local", "postfix-queue", "postfix-mailman"}) {
        const std::string path = std::string("/usr/lib/torva-9.0/") + name;
        if (::access(path.c_str(), X_OK) != 0) {
            findings.warning("panel", path + " is missing", "install the panel's mail programs");
        }
    }
    findings.fine("panel", "programs in /usr/lib/torva-9.0");
}

/// Why Postfix finds no file at a path; empty: it finds one, perhaps through links.
std::string whyNoFile(const std::string& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) {
        return path + " is missing";
    }
    return S_ISREG(status.st_mode) ? std::string() : path + " is not a regular file";
}

void findPcreTables(Findings& findings) {
    for (const char* name : {"no_relay.re", "non_auth.re"}) {
        const std::string path = std::string(tablesDirectory) + "/" + name;
        const std::string trouble = whyNoFile(path);
        if (!trouble.empty()) {
            findings.warning("pcre-table", trouble + ": smtpd answers 451 to every client",
                             "have the panel write it; an empty one will do");
        }
    }
    findings.fine("pcre-table", "no_relay.re, non_auth.re");
}

void findCertificate(const Postfix& postfix, Findings& findings) {
    const std::string path = postfix.directory + "/postfix_default.pem";
    const std::string trouble = whyNoFile(path);
    if (!trouble.empty()) {
        findings.warning("certificate", trouble + ": no TLS", "put certificate and key there");
    }
    findings.fine("certificate", "postfix_default.pem");
}

bool hasAddress() {
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0) {
        return false;
    }
    bool found = false;
    for (const ifaddrs* one = list; one != nullptr; one = one->ifa_next) {
        if (one->ifa_addr != nullptr && one->ifa_addr->sa_family == AF_INET) {
            sockaddr_in address{};
            std::copy_n(reinterpret_cast<const char*>(one->ifa_addr), sizeof(address),
                        reinterpret_cast<char*>(&address));
            found = found || (ntohl(address.sin_addr.s_addr) >> 24) != IN_LOOPBACKNET;
        }
    }
    ::freeifaddrs(list);
    return found;
}

void findNetwork(Findings& findings) {
    if (!hasAddress()) {
        findings.warning("network",
                         "this host has only loopback addresses: the mynetworks of the run is "
                         "unusable",
                         "first bring the network up");
    }
    findings.fine("network", "an address that is not loopback");
}

/// The client of the panel's database; empty: there is none.
std::string databaseClient() {
    for (const char* path : {"/usr/bin/mariadb", "/usr/bin/mysql"}) {
        if (::access(path, X_OK) == 0) {
            return path;
        }
    }
    return std::string();
}

struct DatabaseTrouble {
    std::string reason;
    std::string advice;
};

/// What the panel's database says to the program's account.
ToolResult askDatabase(const std::string& client, const std::string& password) {
    // Not as an argument, which everybody could read.
    ::setenv("MYSQL_PWD", password.c_str(), 1);
    ToolResult result = run({"timeout", "10", client, "--no-defaults", "--local-infile=0",
                             std::string("--socket=") + databaseSocket, "--user=admin",
                             "--execute=SELECT 1", "kra"});
    ::unsetenv("MYSQL_PWD");
    return result;
}

/// Why the database does not answer; nothing when it does. Without a client, only the socket
/// and the password are checked.
std::optional<DatabaseTrouble> databaseTrouble() {
    struct stat status {};
    if (::stat(databaseSocket, &status) != 0 || !S_ISSOCK(status.st_mode)) {
        return DatabaseTrouble{std::string("there is no ") + databaseSocket,
                               "start the panel's database before the run"};
    }
    const std::string shadow = readFile(passwordFile).value_or("");
    if (shadow.empty()) {
        return DatabaseTrouble{std::string("there is no password in ") + passwordFile,
                               "have the panel write it before the run"};
    }
    const std::string client = databaseClient();
    if (client.empty()) {
        return std::nullopt;
    }
    const ToolResult result = askDatabase(client, shadow.substr(0, shadow.find('\n')));
    if (result.succeeded()) {
        return std::nullopt;
    }
    return DatabaseTrouble{
        exitStatus(result) == timedOut ? "no answer within 10 seconds" : wordsOf(result),
        std::string("set that right before the run; the password is in ") + passwordFile};
}

} // namespace

void findSurroundings(const Host& host, Findings& findings) {
    findAccounts(findings);
    findPanel(findings);
    findPcreTables(findings);
    findCertificate(host.postfix, findings);
    findNetwork(findings);
}

void findDatabase(Findings& findings) {
    if (const auto trouble = databaseTrouble()) {
        findings.warning("database",
                         "kra does not answer: " + trouble->reason + "; " + tablesDirectory +
                             "/virtual will miss the mail names of localhost.localdomain and "
                             "their aliases",
                         trouble->advice);
    }
    findings.fine("database", "the panel's database");
}

} // namespace torva::ctl

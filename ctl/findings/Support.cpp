#include "ctl/findings/HostFindings.h"

#include <algorithm>

namespace torva::ctl {

namespace {

bool holds(const std::vector<std::string>& list, const std::string& element) {
    return std::find(list.begin(), list.end(), element) != list.end();
}

/// What to do on a Postfix without Berkeley DB, or on one that redirects to a type that takes
/// no single records, so that the panel's tables work.
std::string adviceForTables(const Host& host) {
    if (host.support.tableFailure.find("unsupported") == std::string::npos) {
        return "correct it: postmap must create a table of the type hash and put a record into it";
    }
    const bool canRedirect = host.postfix.values.count("non_bdb_migration_level") != 0;
    if (!canRedirect) {
        return "install a Postfix with Berkeley DB, such as Debian's";
    }
    const std::string install =
        holds(host.mapTypes, "lmdb") ? "" : "install a Postfix with LMDB, such as Debian's; ";
    return install +
           "postconf default_database_type=lmdb && postfix non-bdb enable-redirect; then build "
           "each hash table of the configuration again, with postmap or postalias (see "
           "NON_BERKELEYDB_README)";
}

void findHash(const Host& host, Findings& findings) {
    const std::string& failure = host.support.tableFailure;
    if (failure.empty()) {
        return;
    }
    const std::string missing = holds(host.mapTypes, "hash") ? "" : "hash is not in postconf -m: ";
    findings.stop("map-type", missing + "the run would end at a table of the panel: " + failure,
                  adviceForTables(host));
}

void findMapTypes(const Host& host, Findings& findings) {
    findHash(host, findings);
    if (!holds(host.mapTypes, "pcre")) {
        findings.warning("map-type",
                         "pcre is not in postconf -m: smtpd answers 451 to every client",
                         "apt-get install postfix-pcre");
    }
    const std::string type = host.postfix.readAs("hash");
    findings.fine("map-type", type == "hash" ? "hash, pcre"
                                             : "hash, which Postfix reads as " + type + "; pcre");
}

std::string joined(const std::string& list, const std::string& name, const std::string& words) {
    return list + (list.empty() ? "" : ", ") + name + " (" + words + ")";
}

/// One finding, and not a warning: it affects neither the run nor the mail.
void findDeprecated(const Host& host, Findings& findings) {
    std::string list;
    for (const DroppedParameter& one : host.support.dropped) {
        list = joined(list, one.name, one.words);
    }
    if (!host.support.droppedTables.empty()) {
        list = joined(list, "tables of the type hash", host.support.droppedTables);
    }
    const std::string version = "Postfix " + host.postfix.value("mail_version");
    if (list.empty()) {
        findings.ok("deprecated", version + " calls nothing that a run uses deprecated");
        return;
    }
    const std::string meaning =
        host.support.tableFailure.empty()
            ? "the run works with " + version + "; a later Postfix drops what is named here"
            : "a version later than " + version + " drops what is named here";
    findings.ok("deprecated", list + ": " + meaning);
}

} // namespace

void findSupport(const Host& host, Findings& findings) {
    if (!host.support.isAsked) {
        return; // Postfix could not be asked, which is a finding already
    }
    findMapTypes(host, findings);
    findDeprecated(host, findings);
}

} // namespace torva::ctl

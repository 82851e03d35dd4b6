#include "app/SystemAliases.h"

#include "app/CollectedErrors.h"
#include "app/TouchFile.h"
#include "torva/postfix/params/ListValue.h"
#include "torva/postfix/params/PostfixParameters.h"
#include "torva/postfix/tables/HalfMadeIndex.h"
#include "torva/postfix/tables/ShieldedIndex.h"
#include "torva/postfix/tables/TableFiles.h"
#include "torva/process/Launch.h"
#include "torva/util/SystemError.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <iterator>
#include <sys/wait.h>
#include <vector>

namespace torva::app {

using mail::postfix::PostfixParameters;

namespace {

const char panelAliases[] = "hash:/var/spool/postfix/torva/aliases";

const char* const indexedTypes[] = {"hash", "btree", "dbm", "sdbm", "cdb"};

/// The status of system(3).
int runInShell(const std::string& command) {
    const CollectedErrors errors;        // a warning must not end postalias
    return std::system(command.c_str()); // NOLINT(cert-env33-c)
}

/// \param source  path of the source file
void rebuildAliases(const std::string& database, const std::string& source) {
    const std::string command = "/usr/sbin/postalias " + database;
    mail::postfix::HalfMadeIndexGuard guard(source);
    // A command that ran and failed is not a system error, and leaves errno alone.
    errno = 0;
    const int status = runInShell(command);
    const int code = errno;
    if (status == -1) {
        process::waitForLostChildren();
    }
    if (status == -1 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        errno = code;
        throw SystemError("unable to re-index system alias map", code);
    }
    guard.letGo();
}

} // namespace

SystemAliases::SystemAliases()
    : defaultType_(PostfixParameters::instance().getParameter("default_database_type")) {}

SystemAliases::Database SystemAliases::databaseOf(const std::string& element) const {
    const std::string::size_type colon = element.find(':');
    if (colon != std::string::npos) {
        return {element.substr(0, colon), element.substr(colon + 1)};
    }
    // The type of a reference is that of its value.
    return {element.front() == '$' ? std::string() : defaultType_, element};
}

void SystemAliases::build(const std::string& element) const {
    const Database database = databaseOf(element);
    if (element != panelAliases && std::find(std::begin(indexedTypes), std::end(indexedTypes),
                                             database.type) != std::end(indexedTypes)) {
        touchFile(database.path);
        // Some are in a directory of another account, as those of a list manager: postalias
        // would write through a link that it has put there.
        mail::postfix::settleIndexes(database.path, mail::postfix::IndexUse::rebuilt);
        mail::postfix::ShieldedIndex index(database.type, database.path,
                                           mail::postfix::IndexUse::rebuilt);
        rebuildAliases(element, database.path);
        index.letGo();
    }
}

void SystemAliases::check(const std::string& parameter) {
    PostfixParameters& parameters = PostfixParameters::instance();
    const std::string value = parameters.getParameter(parameter);
    if (value.empty()) {
        return;
    }
    const bool refers = value.find('$') != std::string::npos;
    const std::string expanded = refers ? parameters.getExpandedParameter(parameter) : value;
    for (const std::string& element : mail::postfix::splitAtCommas(expanded)) {
        build(element);
    }
    // The administrator's own text is written back, not the expansion.
    std::vector<std::string> kept;
    for (const std::string& element : mail::postfix::splitAtCommas(value)) {
        if (element != panelAliases && databaseOf(element).type == "nis") {
            changed_ = true;
        } else {
            kept.push_back(element);
        }
    }
    if (changed_) {
        parameters.setParameter(parameter, mail::postfix::joinList(kept));
    }
}

} // namespace torva::app

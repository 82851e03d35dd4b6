#include "app/SystemAliases.h"

#include "app/TouchFile.h"
#include "torva/postfix/params/ListValue.h"
#include "torva/postfix/params/PostfixParameters.h"
#include "torva/postfix/tables/HalfMadeIndex.h"
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

/// \param source  path of the source file
void rebuildAliases(const std::string& database, const std::string& source) {
    const std::string command = "/usr/sbin/postalias " + database;
    mail::postfix::removeHalfMadeIndex(source); // of a creation that was killed
    // A command that ran and failed is no system error, and leaves errno as it is.
    errno = 0;
    const int status = std::system(command.c_str()); // NOLINT(cert-env33-c)
    const int code = errno;
    if (status == -1) {
        process::waitForLostChildren();
    }
    if (status == -1 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        mail::postfix::removeHalfMadeIndex(source);
        errno = code;
        throw SystemError("unable to re-index system alias map", code);
    }
}

} // namespace

SystemAliases::SystemAliases()
    : defaultType_(PostfixParameters::instance().getParameter("default_database_type")) {}

bool SystemAliases::keep(const std::string& element) {
    if (element == panelAliases) {
        return true;
    }
    const std::string::size_type colon = element.find(':');
    const bool typed = colon != std::string::npos;
    const std::string type = typed ? element.substr(0, colon) : defaultType_;
    const std::string path = typed ? element.substr(colon + 1) : element;
    if (type == "nis") {
        changed_ = true;
        return false;
    }
    if (std::find(std::begin(indexedTypes), std::end(indexedTypes), type) !=
        std::end(indexedTypes)) {
        touchFile(path);
        rebuildAliases(element, path);
    }
    return true;
}

void SystemAliases::check(const std::string& parameter) {
    const std::string value = PostfixParameters::instance().getParameter(parameter);
    if (value.empty()) {
        return;
    }
    std::vector<std::string> kept;
    for (const std::string& element : mail::postfix::splitAtCommas(value)) {
        if (keep(element)) {
            kept.push_back(element);
        }
    }
    if (changed_) {
        PostfixParameters::instance().setParameter(parameter, mail::postfix::joinList(kept));
    }
}

} // namespace torva::app

#include "ctl/findings/HostFindings.h"
#include "ctl/host/Files.h"
#include "ctl/host/Lists.h"
#include "ctl/host/OpenIndex.h"
#include "ctl/host/Records.h"
#include "ctl/host/TouchedPaths.h"
#include "torva/postfix/params/ListValue.h"

#include <boost/algorithm/string/join.hpp>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace torva::ctl {

namespace {

void findMainCfItself(const Postfix& postfix, Findings& findings) {
    const std::string path = postfix.mainCf();
    const std::string text = readFile(path).value_or("");
    if (!text.empty() && text.back() != '\n') {
        findings.warning("main.cf",
                         path + " has no newline at its end: postconf -e glues the next setting "
                                "to the last",
                         "apply and preview supply it; else: echo >>" + path);
    }
    struct stat status {};
    if (::lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode)) {
        findings.warning("main.cf",
                         path + " is a symbolic link, which postconf -e replaces by a file",
                         "apply and preview keep it; else make it a file");
    }
    findings.fine("main.cf", path);
}

void findHardLinks(const std::string& path, const std::string& subject, Findings& findings) {
    struct stat status {};
    const std::string target = resolved(path);
    if (::stat(target.c_str(), &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink > 1) {
        findings.warning(subject,
                         target + " has " + std::to_string(status.st_nlink) +
                             " names (hard links): the run changes only this one",
                         "cp -p " + target + " " + target + ".new && mv " + target + ".new " +
                             target);
    }
}

void findRecords(const Postfix& postfix, Findings& findings) {
    const std::string trouble = "a table of the panel cannot be read: ";
    RecordsByTable others;
    try {
        others = readRecords(postfix);
    } catch (const LockedIndex& error) {
        findings.stop("records", trouble + error.what(),
                      "wait until that process has ended, or end it");
        return;
    } catch (const std::runtime_error& error) {
        findings.stop("records", trouble + error.what(), "have the panel write it again");
        return;
    }
    // Records of the host's own name are from an earlier run.
    const std::string own = "@" + postfix.value("myhostname");
    for (auto& [table, records] : others) {
        for (auto one = records.begin(); one != records.end();) {
            const std::string& key = one->first;
            const bool isOwn = key == postfix.value("myhostname") ||
                               (key.size() >= own.size() &&
                                key.compare(key.size() - own.size(), own.size(), own) == 0);
            one = isOwn ? records.erase(one) : std::next(one);
        }
    }
    const std::string counted = countedRecords(others);
    findings.ok("records", counted.empty()
                               ? "none in the panel's tables that the run would drop"
                               : counted + ": the run drops them, apply puts them back");
}

bool isPlain(const std::string& text) {
    return std::all_of(text.begin(), text.end(), [](char character) {
        return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
               (character >= '0' && character <= '9') ||
               std::string("_.@%+=/-").find(character) != std::string::npos;
    });
}

/// Whether the run, which calls postalias through the shell, can rebuild it.
bool isBuildable(const AliasDatabase& database, const std::vector<std::string>& types) {
    return isPlain(database.path) && ::access(directoryOf(database.path).c_str(), W_OK) == 0 &&
           std::find(types.begin(), types.end(), database.type) != types.end();
}

/// The index that postalias opens for writing.
std::string indexOf(const AliasDatabase& database) {
    return database.path + (database.type == "cdb" ? ".cdb" : ".db");
}

/// Finds what ends postalias: links that lead nowhere, a directory in place of an index.
void findUnopenable(const AliasDatabase& database, Findings& findings) {
    const auto stop = [&](const std::string& path, int code) {
        findings.stop("aliases", path + ": " + std::strerror(code), "rm -d " + path);
    };
    struct stat status {};
    // The run creates an empty file where there is none.
    if (::stat(database.path.c_str(), &status) != 0) {
        const int code = errno;
        if (code != ENOENT || !exists(directoryOf(resolved(database.path)))) {
            stop(database.path, code);
        }
    }
    const std::string index = indexOf(database);
    if (::stat(index.c_str(), &status) != 0) {
        if (errno != ENOENT) {
            stop(index, errno);
        }
    } else if (S_ISDIR(status.st_mode)) {
        stop(index, EISDIR);
    }
}

/// What the run takes for the type of an element between commas, which may be several words.
std::string typeForRun(const std::string& element, const Postfix& postfix) {
    const std::size_t colon = element.find(':');
    return colon == std::string::npos ? postfix.value("default_database_type")
                                      : element.substr(0, colon);
}

/// Whether the run does with an element what it should do with each of its words. It splits at
/// commas only, drops an element that begins with "nis:", passes one of an indexed type to the
/// shell, where postalias fails if one of the words has no file, and leaves others alone.
bool isReadAsMeant(const std::string& element, const Postfix& postfix) {
    const std::vector<std::string> words = listElements(element);
    const std::string type = typeForRun(element, postfix);
    if (words.size() < 2 || (type != "nis" && !isRebuilt(type))) {
        return true;
    }
    const std::vector<AliasDatabase> databases = aliasDatabases(postfix);
    const auto hasFile = [&](const std::string& word) {
        return std::any_of(databases.begin(), databases.end(), [&](const AliasDatabase& database) {
            return database.text == word && exists(database.path);
        });
    };
    return std::all_of(words.begin(), words.end(), hasFile);
}

/// \param name  of a list of alias tables, see postconf(5)
void findBlanks(const std::string& name, const Postfix& postfix, Findings& findings) {
    const std::string value = postfix.value(name);
    for (const std::string& element : mail::postfix::splitAtCommas(value)) {
        if (!isReadAsMeant(element, postfix)) {
            findings.stop("aliases", "the run reads \"" + element + "\" as one database",
                          "postconf -e '" + name + "=" +
                              boost::algorithm::join(listElements(value), ", ") + "'");
        }
    }
}

void findAliases(const Host& host, Findings& findings) {
    findBlanks("alias_maps", host.postfix, findings);
    findBlanks("alias_database", host.postfix, findings);
    for (const AliasDatabase& database : aliasDatabases(host.postfix)) {
        if (isNoFile(database.path)) {
            findings.stop("aliases",
                          database.path + " is not a regular file: the run would wait for it",
                          "make it a file, or take it out of alias_maps and alias_database");
        } else if (!isBuildable(database, host.mapTypes)) {
            findings.stop("aliases", database.text + " cannot be rebuilt by the run",
                          "correct alias_maps and alias_database: a type of postconf -m, a "
                          "directory that is there, plain characters");
        } else {
            findUnopenable(database, findings);
        }
    }
    findings.fine("aliases", "alias_maps, alias_database");
}

} // namespace

void findMainCf(const Host& host, Findings& findings) {
    findMainCfItself(host.postfix, findings);
    findHardLinks(host.postfix.mainCf(), "main.cf", findings);
    findHardLinks(host.postfix.masterCf(), "master.cf", findings);
    findRecords(host.postfix, findings);
    findAliases(host, findings);
}

} // namespace torva::ctl

#include "ctl/host/Postfix.h"

#include "ctl/host/Files.h"
#include "ctl/host/Program.h"
#include "ctl/host/Scratch.h"
#include "torva/process/Descriptor.h"

#include <boost/algorithm/string/replace.hpp>
#include <boost/algorithm/string/trim.hpp>

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <set>
#include <sstream>
#include <sys/file.h>
#include <sys/stat.h>

namespace torva::ctl {

namespace {

const char postconf[] = "/usr/sbin/postconf";

/// Lines "NAME = VALUE".
Settings parsed(const std::string& output) {
    Settings settings;
    std::istringstream lines(output);
    std::string line;
    while (std::getline(lines, line)) {
        const std::string::size_type equals = line.find(" =");
        if (equals != std::string::npos) {
            settings[line.substr(0, equals)] = boost::algorithm::trim_copy(line.substr(equals + 2));
        }
    }
    return settings;
}

/// The built-in values. postconf reads the configuration even for these, and would wait for a
/// FIFO in place of a file, so it gets an empty one.
ToolResult askBuiltIn(const std::vector<std::string>& more) {
    const ScratchDirectory scratch;
    scratch.write("main.cf", "");
    scratch.write("master.cf", "");
    std::vector<std::string> words{postconf, "-c", scratch.path(), "-d"};
    words.insert(words.end(), more.begin(), more.end());
    return run(words);
}

std::string configurationDirectory() {
    const char* chosen = std::getenv("MAIL_CONFIG");
    if (chosen != nullptr && *chosen != '\0') {
        return chosen;
    }
    static const std::string builtIn =
        boost::algorithm::trim_copy(askBuiltIn({"-h", "config_directory"}).output);
    return builtIn.empty() ? "/etc/postfix" : builtIn;
}

/// Those of master(5). For any other, postconf would refuse the whole copy of master.cf, and
/// that is a finding about master.cf itself.
bool isServiceType(const std::string& type) {
    const std::set<std::string> types = {"inet", "unix", "fifo", "pass", "unix-dgram"};
    return types.count(type) != 0;
}

/// Entries without options for the services whose names are in main.cf: postconf knows
/// settings such as NAME_destination_recipient_limit only if there is the service.
std::string shortMasterCf(const MasterCfText& masterCf, const std::string& mainCf) {
    std::string text;
    for (const MasterCfTextEntry& entry : masterCf.entries()) {
        if (entry.fields.size() > 7 && isServiceType(entry.type()) &&
            mainCf.find(entry.name() + "_") != std::string::npos) {
            text += entry.name() + " " + entry.type() + " - - - - - " + entry.command() + "\n";
        }
    }
    return text;
}

/// A copy of main.cf that postconf reads quickly.
class MainCfCopy {
public:
    explicit MainCfCopy(const Postfix& postfix) : directory_(postfix.directory) {
        const std::string mainCf = readFile(postfix.mainCf()).value_or("");
        scratch_.write("main.cf", mainCf);
        scratch_.write("master.cf", shortMasterCf(readMasterCf(postfix), mainCf));
    }

    ToolResult ask(const std::string& option) const {
        ToolResult result =
            run({postconf, "-c", scratch_.path(), "-o", "config_directory=" + directory_, option});
        boost::algorithm::replace_all(result.error, scratch_.path(), directory_);
        return result;
    }

private:
    std::string directory_;
    ScratchDirectory scratch_;
};

/// The types that Berkeley DB makes, where Postfix reads other ones in their place.
Settings redirectsOf(const Postfix& postfix) {
    const std::string level = postfix.value("non_bdb_migration_level");
    if (level != "enable-redirect" && level != "enable-reindex") {
        return Settings();
    }
    Settings redirects{{"hash", postfix.value("default_database_type")},
                       {"btree", postfix.value("default_cache_db_type")}};
    const std::string custom = postfix.value("non_bdb_custom_mapping");
    if (!custom.empty()) {
        for (auto& [type, target] : redirects) {
            const std::string found =
                boost::algorithm::trim_copy(run({"/usr/sbin/postmap", "-q", type, custom}).output);
            target = found.empty() ? target : found;
        }
    }
    return redirects;
}

/// The settings of main.cf, or why Postfix does not read it.
void readSettings(Postfix& postfix) {
    const MainCfCopy copy(postfix);
    const ToolResult values = copy.ask("-x");
    if (values.succeeded() && !values.output.empty()) {
        postfix.values = parsed(values.output);
        postfix.settings = parsed(copy.ask("-n").output);
        postfix.settings.erase("config_directory"); // that of the copy
        postfix.redirects = redirectsOf(postfix);
    } else {
        postfix.failure = wordsOf(values);
        postfix.values = parsed(askBuiltIn({}).output);
    }
}

/// Why Postfix's programs would wait for a file of the configuration; empty: they would not.
std::string obstacleIn(const Postfix& postfix) {
    for (const std::string& path : {postfix.mainCf(), postfix.masterCf()}) {
        struct stat status {};
        if (::stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
            return path + " is not a regular file";
        }
    }
    return std::string();
}

} // namespace

std::string Postfix::readAs(const std::string& type) const {
    const auto found = redirects.find(type);
    return found == redirects.end() ? type : found->second;
}

std::string Postfix::value(const std::string& name) const {
    const auto found = values.find(name);
    return found == values.end() ? std::string() : found->second;
}

std::string Postfix::expanded(const std::string& text) const {
    std::string result;
    for (std::string::size_type at = 0; at < text.size(); ++at) {
        if (text[at] != '$') {
            result += text[at];
            continue;
        }
        const std::string::size_type begin = text.find_first_not_of("({", at + 1);
        const std::string::size_type end = std::min(
            text.find_first_not_of("abcdefghijklmnopqrstuvwxyz_0123456789", begin), text.size());
        if (begin == std::string::npos) {
            break;
        }
        result += value(text.substr(begin, end - begin));
        at = end < text.size() && (text[end] == ')' || text[end] == '}') ? end : end - 1;
    }
    return result;
}

Postfix askPostfix() {
    Postfix postfix;
    postfix.directory = configurationDirectory();
    postfix.failure = obstacleIn(postfix);
    if (!postfix.failure.empty()) {
        postfix.values = parsed(askBuiltIn({}).output);
    } else {
        readSettings(postfix);
    }
    postfix.values["config_directory"] = postfix.directory;
    if (postfix.queueDirectory().empty()) {
        postfix.values["queue_directory"] = "/var/spool/postfix";
    }
    return postfix;
}

MasterCfText readMasterCf(const Postfix& postfix) {
    return MasterCfText(readFile(postfix.masterCf()).value_or(""));
}

int masterProcess(const Postfix& postfix) {
    const std::string path = postfix.queueDirectory() + "/pid/master.pid";
    const process::Descriptor file(
        ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    if (!file || ::flock(file.get(), LOCK_SH | LOCK_NB) == 0) {
        return 0; // the daemon holds the lock as long as it runs
    }
    const std::string text = readFile(path).value_or("");
    return static_cast<int>(std::strtol(text.c_str(), nullptr, 10));
}

} // namespace torva::ctl

#include "ctl/verbs/Run.h"

#include "ctl/backup/Lock.h"
#include "ctl/host/Files.h"
#include "ctl/host/Program.h"
#include "ctl/host/Records.h"
#include "ctl/host/Shelter.h"
#include "ctl/host/ToolWords.h"
#include "ctl/host/TouchedPaths.h"
#include "torva/util/SystemError.h"

#include <boost/algorithm/string/join.hpp>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <set>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace torva::ctl {

using process::Descriptor;

namespace {

constexpr std::time_t changeWindow = 5; ///< in seconds
const char chrootHook[] = "/usr/lib/postfix/configure-instance.sh";

void requireSuccess(int result, const std::string& operation) {
    if (result != 0) {
        throwSystemError(operation, errno);
    }
}

/// Adds a missing last newline, without which postconf -e appends the next setting to the
/// last line, and makes the file old enough that Postfix does not wait for it.
void prepareMainCf(const Postfix& postfix) {
    const std::string path = postfix.mainCf();
    const std::optional<std::string> text = readFile(path);
    if (!text) {
        return; // the run creates it
    }
    const bool isCut = !text->empty() && text->back() != '\n';
    struct stat status {};
    requireSuccess(::stat(path.c_str(), &status), "stat " + path);
    const bool isYoung = status.st_mtim.tv_sec > std::time(nullptr) - changeWindow;
    if (isCut || isYoung) {
        // A copy, even for the time alone: other hard links to the file must not change.
        replaceText(path, *text + (isCut ? "\n" : ""));
    }
    if (isYoung) {
        const timespec times[2] = {{0, UTIME_OMIT}, {std::time(nullptr) - 2 * changeWindow, 0}};
        requireSuccess(::utimensat(AT_FDCWD, path.c_str(), times, 0), "utimensat " + path);
    }
}

/// Ignores SIGPIPE, also in the tool, which inherits this: a reader of its output that goes
/// away does not end it half-way.
class NoBrokenPipe {
public:
    NoBrokenPipe() : previous_(std::signal(SIGPIPE, SIG_IGN)) {}
    ~NoBrokenPipe() { std::signal(SIGPIPE, previous_); }
    NoBrokenPipe(const NoBrokenPipe&) = delete;
    NoBrokenPipe& operator=(const NoBrokenPipe&) = delete;

private:
    void (*previous_)(int);
};

int runTool(const std::string& tool, int progress) {
    const NoBrokenPipe noBrokenPipe;
    const Descriptor nothing = process::openNullDevice(O_WRONLY, "open /dev/null");
    ::setenv("TORVA_INSTALLER_DEBUG", "1", 1);
    Program program;
    program.words = {tool};
    program.output = nothing.get();
    program.error = progress;
    return exitStatus(run(program));
}

/// Restores a symbolic link that was replaced by a file: the text goes to its target.
void restoreLink(const std::string& path, const Entry& link) {
    const std::string text = readFile(path).value_or("");
    const std::string scratch = path + ".torva-new";
    ::unlink(scratch.c_str());
    requireSuccess(::symlink(link.target.c_str(), scratch.c_str()), "symlink " + scratch);
    requireSuccess(::lchown(scratch.c_str(), link.owner, link.group), "lchown " + scratch);
    replaceText(resolved(scratch), text);
    requireSuccess(std::rename(scratch.c_str(), path.c_str()), "rename " + scratch);
}

/// Restores mode, owner and attributes; postconf leaves a new file.
void restoreAttributes(const std::string& path, const Entry& before) {
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file) {
        throwSystemError("open " + path, errno);
    }
    requireSuccess(::fchown(file.get(), before.owner, before.group), "fchown " + path);
    requireSuccess(::fchmod(file.get(), before.mode & 07777), "fchmod " + path);
    for (const auto& [name, value] : before.attributes) {
        requireSuccess(::fsetxattr(file.get(), name.c_str(), value.data(), value.size(), 0),
                       "fsetxattr " + path);
    }
}

void settle(const std::string& path, const Snapshot& before) {
    const auto entry = before.find(path);
    struct stat status {};
    if (entry == before.end() || ::lstat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return;
    }
    if (entry->second.isLink()) {
        restoreLink(path, entry->second);
    } else if (entry->second.isFile()) {
        restoreAttributes(path, entry->second);
    }
}

/// Comments out the entry "pickup unix" if there is the run's "pickup fifo": with both, mail
/// that waits while Postfix starts is picked up twice.
std::string withOnePickup(const std::string& masterCf, std::vector<Finding>& findings) {
    MasterCfText text(masterCf);
    bool hasFifo = false;
    for (const MasterCfTextEntry& entry : text.entries()) {
        hasFifo = hasFifo || entry.key() == "pickup/fifo";
    }
    for (const MasterCfTextEntry& entry : text.entries()) {
        if (hasFifo && entry.key() == "pickup/unix") {
            text.commentOut(entry, "#");
            findings.push_back({Level::done, "pickup",
                                "pickup/unix is commented out: the run adds pickup/fifo, and with "
                                "both, mail would be picked up twice",
                                ""});
        }
    }
    return text.text();
}

void shelterServices(const Postfix& postfix, const Sheltered& sheltered) {
    if (!sheltered.lines.empty()) {
        replaceText(postfix.masterCf(), sheltered.text);
    }
}

void restoreServices(const Postfix& postfix, const Sheltered& sheltered,
                     std::vector<Finding>& findings) {
    const std::string now = readFile(postfix.masterCf()).value_or("");
    std::vector<std::string> replaced;
    const std::string whole = withOnePickup(unshelter(now, sheltered, replaced), findings);
    if (whole != now) {
        replaceText(postfix.masterCf(), whole);
    }
    if (!replaced.empty()) {
        findings.push_back({Level::warning, "master.cf",
                            boost::algorithm::join(replaced, " ") +
                                ": replaced by the run; the entry that was there is a comment now",
                            "move its options to the new entry where they are still needed"});
    }
}

void putRecordsBack(const Postfix& postfix, const RecordsByTable& before,
                    std::vector<Finding>& findings) {
    const RecordsByTable missing = missingRecords(before, readRecords(postfix));
    const std::vector<std::string> notPutBack = putBack(missing);
    const std::string counted = countedRecords(missing);
    if (!counted.empty()) {
        findings.push_back(
            {Level::done, "records", "put back what the run dropped: " + counted, ""});
    }
    if (!notPutBack.empty()) {
        findings.push_back({Level::warning, "records",
                            "not put back, because of white space in the key: " +
                                boost::algorithm::join(notPutBack, ", "),
                            "have the panel write these again"});
    }
}

/// The words to put before a command so that it runs without Debian's hook; none where root
/// may make no namespaces. From Debian 13 on, "postfix check" runs the hook, which refreshes
/// and removes files below the queue directory that a rollback does not know.
std::vector<std::string> withoutChrootHook() {
    std::vector<std::string> words{"unshare",
                                   "--mount",
                                   "--propagation",
                                   "private",
                                   "--",
                                   "sh",
                                   "-c",
                                   R"(mount --bind /bin/true "$0" 2>/dev/null && exec "$@")",
                                   chrootHook};
    std::vector<std::string> trial = words;
    trial.emplace_back(chrootHook);
    if (!exists(chrootHook) || !run(trial).succeeded()) {
        words.clear();
    }
    return words;
}

/// \throws std::runtime_error  the run would wait for something
void requireFiles(const Postfix& postfix) {
    for (const AliasDatabase& database : aliasDatabases(postfix)) {
        if (isNoFile(database.path)) {
            throw std::runtime_error(database.path +
                                     " is not a regular file: the run would wait for it");
        }
    }
}

} // namespace

RunResult performRun(const Host& host, const Manifest& before, const RunOptions& options) {
    const Postfix& postfix = host.postfix;
    RunResult result;
    const RunLock lock; // inherited by everything that changes files, even if we are killed
    requireFiles(postfix);
    prepareMainCf(postfix);
    const std::string masterCf = readFile(postfix.masterCf()).value_or("");
    const std::string mainCf = readFile(postfix.mainCf()).value_or("");
    const Sheltered sheltered =
        shelter(masterCf, options.isCopy ? uninvolvedServices(masterCf, mainCf) : nullptr);
    shelterServices(postfix, sheltered);
    const RecordsByTable records = options.emptyTables ? RecordsByTable() : readRecords(postfix);
    result.status = runTool(host.programs.tool, options.progress);
    restoreServices(postfix, sheltered, result.findings);
    const std::string directory = resolved(postfix.directory);
    settle(directory + "/main.cf", before.entries);
    settle(directory + "/master.cf", before.entries);
    if (result.status == 0) {
        putRecordsBack(postfix, records, result.findings);
    }
    return result;
}

Verdict postfixCheck() {
    // It prints its findings only on terminals; script(1) provides one.
    std::vector<std::string> command{"/usr/sbin/postfix", "check"};
    if (exists("/dev/ptmx")) {
        command = {"script", "-qec", "/usr/sbin/postfix check", "/dev/null"};
    }
    std::vector<std::string> words = withoutChrootHook();
    words.insert(words.end(), command.begin(), command.end());
    Program program;
    program.words = std::move(words);
    program.purpose = "/usr/sbin/postfix check";
    const ToolResult result = run(program);
    Verdict verdict;
    verdict.status = exitStatus(result);
    std::set<std::string> seen;
    const std::vector<std::string> all = linesOf(result.output + result.error);
    const std::vector<std::string> complaints = withoutNews(all);
    // A failure is never without its words.
    const bool isUnexplained = verdict.status != 0 && complaints.empty();
    for (const std::string& line : isUnexplained ? all : complaints) {
        if (seen.insert(line).second) {
            verdict.text += (verdict.text.empty() ? "" : "\n") + line;
        }
    }
    return verdict;
}

} // namespace torva::ctl

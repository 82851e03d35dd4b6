#include "ctl/backup/Archive.h"
#include "ctl/backup/Directory.h"
#include "ctl/host/Files.h"
#include "ctl/host/PrivateWorld.h"
#include "ctl/host/Program.h"
#include "ctl/host/TouchedPaths.h"
#include "ctl/verbs/Failure.h"
#include "ctl/verbs/Signals.h"
#include "ctl/verbs/Verbs.h"
#include "torva/util/SystemError.h"

#include <boost/filesystem/operations.hpp>

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace torva::ctl {

namespace {

/// Creates the directory for the resulting files, or checks that it is empty and root's
/// alone: another account could put links into it, and so have files of the host replaced.
///
/// \return the open directory: its name may lead elsewhere when the preview has ended
process::Descriptor prepareKept(std::string path) {
    path.erase(path.find_last_not_of('/') + 1);
    boost::system::error_code ignored; // opening it fails and gives the reason
    boost::filesystem::create_directories(directoryOf(path), ignored);
    ::mkdir(path.c_str(), 0700);
    process::Descriptor directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat status {};
    if (!directory || ::fstat(directory.get(), &status) != 0 || !namesIn(directory.get()).empty()) {
        throw Refusal("preview", path + " is not empty, or cannot be made", "name another");
    }
    if (status.st_uid != ::geteuid() || (status.st_mode & 0022) != 0) {
        throw Refusal("preview", path + " is not root's alone", "name another");
    }
    return directory;
}

/// Holds the resulting files outside the private world: memory that a child inherits.
process::Descriptor openArchive() {
    process::Descriptor archive(::memfd_create("torva-postfixctl", 0));
    if (!archive) {
        throwSystemError("memfd_create", errno);
    }
    return archive;
}

void appendWith(std::vector<std::string>& words, const std::string& path) {
    words.emplace_back("--with");
    words.push_back(path);
}

/// Files that a chroot on a copied tree would lack, and the socket of the panel's database.
void appendNeeded(std::vector<std::string>& words, const OwnPrograms& programs) {
    appendWith(words, programs.tool);
    appendWith(words, programs.self);
    if (exists("/run/mysqld")) {
        appendWith(words, "/run/mysqld");
    }
    const std::vector<std::string> copied{"/etc/", "/var/", "/usr/", "/run/"};
    for (const std::string& path : touchedPaths(askPostfix())) {
        const bool isCopied =
            std::any_of(copied.begin(), copied.end(), [&](const std::string& directory) {
                return path.compare(0, directory.size(), directory) == 0;
            });
        if (!isCopied && boost::filesystem::is_regular_file(path)) {
            appendWith(words, path);
        }
    }
}

/// \param archive  where to write the resulting files; -1: nowhere
std::vector<std::string> commandFor(const Call& call, int archive) {
    const Request& request = call.request;
    std::vector<std::string> words{call.programs.sandbox, "--or-chroot", "--loopback-only"};
    appendNeeded(words, call.programs);
    if (request.panelAccounts) {
        words.emplace_back("--panel-accounts");
    }
    words.insert(words.end(), {"--", call.programs.self});
    if (request.json) {
        words.emplace_back("--json");
    }
    words.emplace_back("preview");
    if (request.deliver) {
        words.emplace_back("--deliver");
    }
    if (request.emptyTables) {
        words.emplace_back("--empty-tables");
    }
    const HostNames names = namesOfHost();
    if (archive != -1) {
        words.insert(words.end(), {"--archive", std::to_string(archive)});
    }
    words.insert(words.end(), {"--inside", names.node, names.full, names.addresses});
    return words;
}

void keepFiles(int archive, const process::Descriptor& directory) {
    if (::fchdir(directory.get()) != 0) {
        throwSystemError("fchdir", errno);
    }
    unpackArchive(archive);
}

} // namespace

int preview(Call& call) {
    if (::access(call.programs.tool.c_str(), X_OK) != 0) {
        throw Refusal("program", "there is no " + call.programs.tool,
                      "build it, or install the package");
    }
    endAtSignals();
    try {
        const process::Descriptor kept =
            call.request.keep.empty() ? process::Descriptor() : prepareKept(call.request.keep);
        // The tables may be huge, and the archive is in memory.
        const process::Descriptor archive = kept ? openArchive() : process::Descriptor();
        Program program;
        program.words = commandFor(call, archive.get());
        program.output = STDOUT_FILENO;
        program.error = STDERR_FILENO;
        obeySignals(); // the end of this process ends the private world
        const int status = exitStatus(run(program));
        if (kept) {
            keepFiles(archive.get(), kept);
        }
        return status;
    } catch (const Failure&) {
        throw;
    } catch (const std::exception& error) {
        throw Refusal("preview", std::string("no preview: ") + error.what(),
                      "remove the cause, then torva-postfixctl preview");
    }
}

} // namespace torva::ctl

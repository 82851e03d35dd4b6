#include "app/TablesPhase.h"

#include "app/Progress.h"
#include "torva/postfix/tables/CreateTable.h"
#include "torva/util/FilesystemError.h"

#include <cerrno>
#include <sys/stat.h>

namespace torva::app {

namespace {

struct TableStep {
    const char* text;
    const char* table;
};

const TableStep tables[] = {
    {" Virtual Domains DB", "hash:/var/spool/postfix/torva/virtual_domains"},
    {" Virtual Aliases DB", "hash:/var/spool/postfix/torva/virtual"},
    {" Virtual Mailboxes DB", "hash:/var/spool/postfix/torva/vmailbox"},
    {" Torva-specific Local Aliases DB", "hash:/var/spool/postfix/torva/aliases"},
    {" POP locks DB", "hash:/var/spool/postfix/torva/poplock"},
    {" SMTP Blacklists DB", "hash:/var/spool/postfix/torva/blacklists"},
    {" Transport DB", "hash:/var/spool/postfix/torva/transport"},
};

} // namespace

// Not by Boost, whose versions give different errors when a file is in the way; the text is
// the same as theirs.
void ensureDirectory(const std::string& path) {
    std::string::size_type end = 0;
    do {
        end = path.find('/', end + 1);
        const std::string directory = path.substr(0, end);
        if (::mkdir(directory.c_str(), 0777) == 0) {
            continue;
        }
        int code = errno;
        struct stat status = {};
        if (::stat(directory.c_str(), &status) == 0) {
            if (S_ISDIR(status.st_mode)) {
                continue;
            }
            code = end == std::string::npos ? EEXIST : ENOTDIR;
        }
        throw filesystemError("boost::filesystem::create_directories", path, code);
    } while (end != std::string::npos);
}

void tablesPhase(const Progress& progress) {
    progress.step("Creating Torva Postfix databases directory",
                  [] { ensureDirectory("/var/spool/postfix/torva"); });
    progress.header("Initializing Torva Postfix databases:");
    for (const TableStep& step : tables) {
        progress.step(step.text, [&] { mail::postfix::createTable(step.table, {}); });
    }
    progress.header("Torva Postfix databases initialization completed");
}

} // namespace torva::app

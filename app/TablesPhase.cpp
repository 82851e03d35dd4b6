#include "app/TablesPhase.h"

#include "app/Progress.h"
#include "torva/postfix/tables/CreateTable.h"
#include "torva/util/FilesystemError.h"

#include <boost/filesystem/operations.hpp>

#include <cerrno>

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

void ensureDirectory(const std::string& path) {
    namespace fs = boost::filesystem;
    boost::system::error_code code;
    // Boost names another operation when the path is there and no directory.
    const fs::file_status status = fs::status(path, code);
    if (fs::exists(status) && !fs::is_directory(status)) {
        code.assign(EEXIST, boost::system::system_category());
    } else {
        fs::create_directories(path, code);
    }
    if (code) {
        throw filesystemError("boost::filesystem::create_directories", path, code.value());
    }
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

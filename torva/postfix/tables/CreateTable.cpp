#include "torva/postfix/tables/CreateTable.h"

#include "torva/postfix/params/PostfixTool.h"
#include "torva/postfix/tables/HalfMadeIndex.h"
#include "torva/postfix/tables/PostmapCommand.h"
#include "torva/util/AutocleanOFStream.h"
#include "torva/util/FileLock.h"
#include "torva/util/PostfixError.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace torva::mail::postfix {

namespace {

[[noreturn]] void throwUnableToWrite(const std::string& path, int code) {
    throw PostfixDatabaseError("unable to write " + path + ": " + std::strerror(code));
}

/// Makes an empty file of an unpredictable name beside the source: the tables
/// directory may belong to an account that must not choose what root writes to.
std::string makeScratchFile(const std::string& source) {
    std::string name = source + ".XXXXXX";
    const int fd = ::mkostemp(name.data(), O_CLOEXEC);
    if (fd == -1) {
        throwUnableToWrite(source, errno);
    }
    ::close(fd);
    return name;
}

/// Writes the records to the source file, whole or not at all.
void writeSource(const std::string& source, const Records& records) {
    const std::string scratch = makeScratchFile(source);
    AutocleanOFStream stream(scratch, std::ios_base::out | std::ios_base::trunc);
    try {
        stream.exceptions(std::ios_base::badbit | std::ios_base::failbit);
        for (const Record& record : records) {
            stream << record.first << ' ' << record.second << '\n';
        }
        stream.close();
    } catch (const std::ios_base::failure&) {
        throwUnableToWrite(source, errno);
    }
    // From here on the scratch name is gone; the stream that removes it finds nothing.
    if (::chmod(scratch.c_str(), 0644) != 0 || std::rename(scratch.c_str(), source.c_str()) != 0) {
        throwUnableToWrite(source, errno);
    }
}

} // namespace

void createTable(const std::string& table, const Records& records) {
    const std::string source = tableFile(table);
    const FileLock lock(source, LockMode::fail);
    writeSource(source, records);
    removeHalfMadeIndex(source); // of a creation that was killed
    const ToolResult result = runTool(postmapCommand({"-r"}, table));
    if (!result.succeeded()) {
        removeHalfMadeIndex(source);
        throw PostfixDatabaseError(result.message());
    }
}

} // namespace torva::mail::postfix

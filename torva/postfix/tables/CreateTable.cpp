#include "torva/postfix/tables/CreateTable.h"

#include "torva/postfix/params/PostfixTool.h"
#include "torva/postfix/tables/HalfMadeIndex.h"
#include "torva/postfix/tables/PostmapCommand.h"
#include "torva/postfix/tables/ShieldedIndex.h"
#include "torva/postfix/tables/TableFiles.h"
#include "torva/process/Descriptor.h"
#include "torva/util/AutocleanOFStream.h"
#include "torva/util/FileLock.h"
#include "torva/util/PostfixError.h"
#include "torva/util/SystemError.h"
#include "torva/util/TmpFile.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

namespace torva::mail::postfix {

namespace {

[[noreturn]] void throwUnableToWrite(const std::string& path, int code) {
    throw PostfixDatabaseError("unable to write " + path + ": " + std::strerror(code));
}

/// The temporary file, next to the source, with an unpredictable name. Its descriptor is
/// kept until postmap takes over: the tables directory may belong to an account that
/// replaces any name by another file or a link.
class ScratchFile : private TmpFileBase {
public:
    explicit ScratchFile(const std::string& source) : TmpFileBase(source + "."), held_(fd) {}

    const std::string& path() const { return TmpFileBase::path; }
    int descriptor() const { return held_.get(); }

private:
    const process::Descriptor held_;
};

void writeRecords(const ScratchFile& scratch, const Records& records, std::ofstream& stream) {
    stream.exceptions(std::ios_base::badbit | std::ios_base::failbit);
    for (const Record& record : records) {
        stream << record.first << ' ' << record.second << '\n';
    }
    // By the descriptor, this can change the mode of no other file.
    if (::fchmod(scratch.descriptor(), 0644) != 0) {
        throw SystemError("chmod");
    }
    stream.close();
}

[[noreturn]] void throwSwapped(const std::string& source) {
    throw PostfixDatabaseError("unable to write " + source +
                               ": somebody else has put another file in its place");
}

/// Writes the records to the source file, whole or not at all.
void writeSource(const ScratchFile& scratch, const std::string& source, const Records& records) {
    AutocleanOFStream stream(scratch.path(), scratch.descriptor());
    try {
        writeRecords(scratch, records, stream);
    } catch (const std::ios_base::failure&) {
        throwUnableToWrite(source, errno);
    } catch (const SystemError& error) {
        throwUnableToWrite(source, error.code());
    }
    // rename(2) takes only names. Whoever swaps the name after this check gets the source
    // replaced by their own file, which they can do at any time without us. The source is
    // checked again before postmap reads it.
    if (!isNameOf(scratch.path(), scratch.descriptor())) {
        throwSwapped(source);
    }
    // The temporary name is gone after this, and the stream finds nothing to remove.
    if (std::rename(scratch.path().c_str(), source.c_str()) != 0) {
        throwUnableToWrite(source, errno);
    }
}

ScratchFile makeScratchFile(const std::string& source) {
    try {
        return ScratchFile(source);
    } catch (const SystemError& error) {
        throwUnableToWrite(source, error.code());
    }
}

} // namespace

void createTable(const std::string& table, const Records& records) {
    requireTableName(table);
    const std::string source = tableFile(table);
    const FileLock lock(source, LockMode::fail);
    const ScratchFile scratch = makeScratchFile(source);
    writeSource(scratch, source, records);
    settleIndexes(source, IndexUse::rebuilt);
    ShieldedIndex index(table, IndexUse::rebuilt);
    if (!isNameOf(source, scratch.descriptor())) {
        throwSwapped(source);
    }
    HalfMadeIndexGuard guard(source);
    const ToolResult result = runTool(postmapCommand({"-r"}, table));
    if (!result.succeeded()) {
        throw PostfixDatabaseError(result.message());
    }
    guard.letGo();
    index.letGo();
}

} // namespace torva::mail::postfix

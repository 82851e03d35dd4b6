#include "torva/postfix/tables/TableRewrite.h"

#include "torva/postfix/params/PostfixTool.h"
#include "torva/postfix/tables/DataStreamFilter.h"
#include "torva/postfix/tables/HalfMadeIndex.h"
#include "torva/postfix/tables/KeptFile.h"
#include "torva/postfix/tables/ListingFilter.h"
#include "torva/postfix/tables/NotInDomainFilter.h"
#include "torva/postfix/tables/PostmapCommand.h"
#include "torva/postfix/tables/Records.h"
#include "torva/postfix/tables/ShieldedIndex.h"
#include "torva/postfix/tables/TableFiles.h"
#include "torva/process/Descriptor.h"
#include "torva/util/FileLock.h"
#include "torva/util/PostfixError.h"
#include "torva/util/SystemError.h"
#include "torva/util/TmpFile.h"

#include <cstdio>
#include <fcntl.h>
#include <memory>
#include <unistd.h>

namespace torva::mail::postfix {

namespace {

void requireToolSuccess(const ToolResult& result) {
    if (!result.succeeded()) {
        throw PostfixConfigurationError(result.message());
    }
}

/// Lists the table through the filter into the file.
void writeSurvivors(const std::string& table, TmpFile& survivors,
                    const ListingFilterFor& filterFor) {
    requireToolSuccess(
        runTool(postmapCommand({"-s"}, table), process::InputProducer(), filterFor(survivors)));
}

/// Gives the new source the owner and mode of the old one, unless that was planted: its
/// owner must not choose them.
void takeAfter(const std::string& source, const TmpFile& file) {
    struct stat status = {};
    if (::lstat(source.c_str(), &status) != 0) {
        throw SystemError("stat");
    }
    if (isPlanted(source, status)) {
        setOwnerAndMode(file, ::geteuid(), ::getegid(), 0644);
    } else {
        setOwnerAndMode(file, status.st_uid, status.st_gid, status.st_mode);
    }
}

/// A committed file with a descriptor, to tell when its name leads to another file.
class NewSource {
public:
    NewSource(TmpFile& file, std::string source)
        : file_(file),
          source_(std::move(source)),
          held_(::fcntl(file.descriptor(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1)) {
        if (!held_) {
            throw SystemError("dup");
        }
        file_.commit();
        file_.setAutoclean(true);
    }

    void moveIntoPlace() {
        requireOurs(file_.path());
        if (std::rename(file_.path().c_str(), source_.c_str()) != 0) {
            throw SystemError("rename");
        }
        file_.setAutoclean(false);
    }

    /// The source can still be swapped between this check and postmap's open.
    void requireInPlace() const { requireOurs(source_); }

private:
    void requireOurs(const std::string& path) const {
        if (!isNameOf(path, held_.get())) {
            throw PostfixDatabaseError("unable to write " + source_ +
                                       ": somebody else has put another file in its place");
        }
    }

    TmpFile& file_;
    const std::string source_;
    const process::Descriptor held_;
};

std::vector<std::unique_ptr<KeptIndex>> keepIndexes(const std::string& named) {
    std::vector<std::unique_ptr<KeptIndex>> kept;
    for (const std::string& index : indexFiles(named)) {
        kept.push_back(std::make_unique<KeptIndex>(index));
    }
    return kept;
}

} // namespace

void rewriteTable(const std::string& table, const ListingFilterFor& filterFor) {
    requireTableName(table);
    // postmap gets the name, and expects the index next to it; the source that is
    // replaced may be elsewhere.
    const std::string named = tableFile(table);
    const FileLock lock(named, LockMode::wait);
    const std::string source = resolvedSource(named);
    settleIndexes(named, IndexUse::read);
    TmpFile survivors(source + ".");
    writeSurvivors(table, survivors, filterFor);
    takeAfter(source, survivors);
    NewSource newSource(survivors, source);

    // Files that were not replaced or changed are not restored: if their times changed in
    // between, Postfix would say that the index is older than the source.
    const auto indexes = keepIndexes(named);
    KeptSource oldSource(source);
    newSource.moveIntoPlace();
    oldSource.setReplaced();
    settleIndexes(named, IndexUse::rebuilt);
    newSource.requireInPlace();
    ShieldedIndex index(table, IndexUse::rebuilt);
    newSource.requireInPlace(); // the index may have been large
    HalfMadeIndexGuard guard(named);
    requireToolSuccess(runTool(postmapCommand({}, table)));
    guard.letGo();
    index.letGo();
    oldSource.letGo();
    for (const auto& kept : indexes) {
        kept->letGo();
    }
}

void removeDomainFromTable(const std::string& table, const std::string& domain, bool subdomains) {
    using database::DataStreamFilter;
    using database::ElementsFilter;
    using database::NotInDomainFilter;

    rewriteTable(table, [&](std::ostream& stream) {
        return DataStreamFilter<ElementsFilter<NotInDomainFilter>>(
            stream, ElementsFilter<NotInDomainFilter>(NotInDomainFilter(domain, subdomains)));
    });
}

} // namespace torva::mail::postfix

#include "torva/postfix/tables/TableRewrite.h"

#include "torva/postfix/params/PostfixTool.h"
#include "torva/postfix/tables/DataStreamFilter.h"
#include "torva/postfix/tables/ListingFilter.h"
#include "torva/postfix/tables/NotInDomainFilter.h"
#include "torva/postfix/tables/PostmapCommand.h"
#include "torva/postfix/tables/Records.h"
#include "torva/util/FileLock.h"
#include "torva/util/PostfixError.h"
#include "torva/util/SystemError.h"
#include "torva/util/TmpFile.h"

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace torva::mail::postfix {

namespace {

void moveOver(const std::string& from, const std::string& to) {
    if (std::rename(from.c_str(), to.c_str()) != 0) {
        throw SystemError("rename");
    }
}

void takeModeAndOwner(const std::string& path, const struct stat& from) {
    if (::chown(path.c_str(), from.st_uid, from.st_gid) != 0) {
        throw SystemError("chown");
    }
    if (::chmod(path.c_str(), from.st_mode & 07777) != 0) {
        throw SystemError("chmod");
    }
}

/// A copy of a file, which takes the file's place again unless it is told that all
/// went well. Without a file there is nothing to keep.
class KeptFile {
public:
    explicit KeptFile(const std::string& path) : path_(path) {
        struct stat status = {};
        if (::stat(path.c_str(), &status) != 0) {
            return;
        }
        copy_ = std::make_unique<TmpFile>(path + ".");
        std::ifstream file(path, std::ios::binary);
        // An empty file inserts nothing, which the stream takes for a failure.
        if (status.st_size != 0) {
            *copy_ << file.rdbuf();
        }
        takeModeAndOwner(copy_->path(), status);
        copy_->commit();
        copy_->setAutoclean(true);
        // A read error ends the copying like the end of the file does, and a short copy
        // must never take the place of the whole.
        struct stat copied = {};
        if (::stat(copy_->path().c_str(), &copied) != 0 || copied.st_size != status.st_size) {
            throw SystemError("read", EIO);
        }
    }
    KeptFile(const KeptFile&) = delete;
    KeptFile& operator=(const KeptFile&) = delete;

    ~KeptFile() {
        if (!copy_ || settled_) {
            return;
        }
        // Should this fail, too, the copy is all that is left of the old content.
        copy_->setAutoclean(false);
        static_cast<void>(std::rename(copy_->path().c_str(), path_.c_str()));
    }

    /// The file may stay as it is now.
    void settle() { settled_ = true; }

private:
    std::string path_;
    std::unique_ptr<TmpFile> copy_;
    bool settled_ = false;
};

/// The index files that a source file may have. postmap empties one before it
/// writes it anew, so a postmap that fails halfway leaves it broken.
const char* const indexSuffixes[] = {".db", ".cdb", ".lmdb", ".dir", ".pag"};

void requireSuccess(const ToolResult& result) {
    if (!result.succeeded()) {
        throw PostfixConfigurationError(result.message());
    }
}

void writeSurvivors(const std::string& table, const std::string& source, TmpFile& survivors,
                    const ListingFilterFor& filterFor) {
    requireSuccess(
        runTool(postmapCommand({"-s"}, table), process::InputProducer(), filterFor(survivors)));
    struct stat status = {};
    if (::stat(source.c_str(), &status) != 0) {
        throw SystemError("stat");
    }
    takeModeAndOwner(survivors.path(), status);
    survivors.commit();
    survivors.setAutoclean(true);
}

} // namespace

void rewriteTable(const std::string& table, const ListingFilterFor& filterFor) {
    const std::string source = tableFile(table);
    const FileLock lock(source, LockMode::wait);
    TmpFile survivors(source + ".");
    writeSurvivors(table, source, survivors, filterFor);

    std::vector<std::unique_ptr<KeptFile>> kept;
    kept.push_back(std::make_unique<KeptFile>(source));
    for (const char* suffix : indexSuffixes) {
        kept.push_back(std::make_unique<KeptFile>(source + suffix));
    }
    moveOver(survivors.path(), source);
    survivors.setAutoclean(false);
    requireSuccess(runTool(postmapCommand({}, table)));
    for (const auto& file : kept) {
        file->settle();
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

#include "ctl/backup/Archive.h"

#include "torva/util/SystemError.h"

#include <archive.h>
#include <archive_entry.h>

#include <cerrno>
#include <memory>
#include <stdexcept>
#include <unistd.h>

namespace torva::ctl {

namespace {

using Reader = std::unique_ptr<archive, int (*)(archive*)>;
using Writer = std::unique_ptr<archive, int (*)(archive*)>;
using Header = std::unique_ptr<archive_entry, void (*)(archive_entry*)>;

constexpr std::size_t blockSize = 10240;

void require(int result, archive* handle, const std::string& what) {
    if (result != ARCHIVE_OK && result != ARCHIVE_WARN) {
        const char* reason = archive_error_string(handle);
        throw std::runtime_error(what + ": " + (reason == nullptr ? "unknown error" : reason));
    }
}

Header headerOf(const std::string& path, const Entry& entry) {
    Header header(archive_entry_new(), &archive_entry_free);
    archive_entry_copy_pathname(header.get(), path.substr(1).c_str());
    archive_entry_set_mode(header.get(), entry.mode);
    archive_entry_set_uid(header.get(), entry.owner);
    archive_entry_set_gid(header.get(), entry.group);
    archive_entry_set_mtime(header.get(), entry.seconds, static_cast<long>(entry.nanoseconds));
    archive_entry_set_size(header.get(), static_cast<la_int64_t>(entry.size));
    if (entry.isLink()) {
        archive_entry_copy_symlink(header.get(), entry.target.c_str());
    }
    archive_entry_set_rdev(header.get(), entry.device);
    for (const auto& [name, value] : entry.attributes) {
        archive_entry_xattr_add_entry(header.get(), name.c_str(), value.data(), value.size());
    }
    return header;
}

/// Writes as many bytes as the header says: if the file changes its size meanwhile, the
/// comparison with the host shows that.
std::string writeContents(archive* writer, int contents, std::uint64_t size) {
    Checksum checksum;
    char chunk[65536];
    while (size > 0) {
        const std::size_t wanted = size < sizeof(chunk) ? size : sizeof(chunk);
        const ssize_t got = ::read(contents, chunk, wanted);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            throwSystemError("read", got < 0 ? errno : EIO);
        }
        if (archive_write_data(writer, chunk, static_cast<std::size_t>(got)) != got) {
            require(ARCHIVE_FATAL, writer, "archive");
        }
        checksum.add(chunk, static_cast<std::size_t>(got));
        size -= static_cast<std::uint64_t>(got);
    }
    return checksum.result();
}

Reader openReader(int fd) {
    Reader reader(archive_read_new(), &archive_read_free);
    archive_read_support_format_tar(reader.get());
    if (::lseek(fd, 0, SEEK_SET) != 0) {
        throwSystemError("lseek", errno);
    }
    require(archive_read_open_fd(reader.get(), fd, blockSize), reader.get(), "archive");
    return reader;
}

/// The next header; null at the end.
archive_entry* nextHeader(archive* reader) {
    archive_entry* header = nullptr;
    const int result = archive_read_next_header(reader, &header);
    if (result == ARCHIVE_EOF) {
        return nullptr;
    }
    require(result, reader, "archive");
    return header;
}

void feed(archive* reader, const ContentsConsumer& consumer) {
    char chunk[65536];
    for (;;) {
        const la_ssize_t size = archive_read_data(reader, chunk, sizeof(chunk));
        if (size < 0) {
            require(ARCHIVE_FATAL, reader, "archive");
        }
        consumer(chunk, static_cast<std::size_t>(size));
        if (size == 0) {
            return;
        }
    }
}

} // namespace

Snapshot writeArchive(int fd, const std::vector<std::string>& paths) {
    const Writer writer(archive_write_new(), &archive_write_free);
    require(archive_write_set_format_pax(writer.get()), writer.get(), "archive");
    require(archive_write_open_fd(writer.get(), fd), writer.get(), "archive");
    Snapshot written;
    walk(paths, [&](const std::string& path, Entry& entry, int contents) {
        if (entry.isThere() && !S_ISSOCK(entry.mode)) {
            require(archive_write_header(writer.get(), headerOf(path, entry).get()), writer.get(),
                    "archive");
        }
        if (contents != -1) {
            entry.checksum = writeContents(writer.get(), contents, entry.size);
        }
        written[path] = entry;
    });
    require(archive_write_close(writer.get()), writer.get(), "archive");
    return written;
}

void readArchive(int fd,
                 const std::function<ContentsConsumer(const std::string& path)>& consumerFor) {
    const Reader reader = openReader(fd);
    while (archive_entry* header = nextHeader(reader.get())) {
        if (archive_entry_filetype(header) == AE_IFREG) {
            const ContentsConsumer consumer =
                consumerFor(std::string("/") + archive_entry_pathname(header));
            if (consumer) {
                feed(reader.get(), consumer);
            }
        }
    }
}

void unpackArchive(int fd) {
    const Reader reader = openReader(fd);
    const Writer disk(archive_write_disk_new(), &archive_write_free);
    archive_write_disk_set_options(disk.get(), ARCHIVE_EXTRACT_OWNER | ARCHIVE_EXTRACT_PERM |
                                                   ARCHIVE_EXTRACT_TIME | ARCHIVE_EXTRACT_XATTR |
                                                   ARCHIVE_EXTRACT_SECURE_NODOTDOT |
                                                   ARCHIVE_EXTRACT_SECURE_SYMLINKS);
    while (archive_entry* header = nextHeader(reader.get())) {
        require(archive_read_extract2(reader.get(), header, disk.get()), disk.get(), "unpacking");
    }
    require(archive_write_close(disk.get()), disk.get(), "unpacking");
}

} // namespace torva::ctl

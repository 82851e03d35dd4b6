#include "torva/maildb/mail_auth_create.h"

#include "torva/libc/descriptor.h"
#include "torva/libc/log.h"
#include "torva/maildb/mail_auth.h"
#include "torva/maildb/mail_auth_sql.h"
#include "torva/maildb/mail_server.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/capability.h>
#include <new>
#include <pwd.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace torva::maildb {

const char auth_schema[] =
    "BEGIN TRANSACTION;"
    "CREATE TABLE domains (  id     INTEGER PRIMARY KEY AUTOINCREMENT,"
    " name   VARCHAR(255) UNIQUE,"
    " status INTEGER NOT NULL DEFAULT 0);"
    "CREATE INDEX domains_name ON domains(name);"
    "CREATE TRIGGER fkd_users_domains_id  BEFORE DELETE ON domains  FOR EACH ROW BEGIN"
    "    DELETE FROM users WHERE dom_id = OLD.id;"
    "  END;"
    "CREATE TABLE users(  id           INTEGER PRIMARY KEY AUTOINCREMENT,"
    " dom_id       INTEGER NOT NULL,"
    " name         VARCHAR(255) NOT NULL,"
    " userPassword VARCHAR(255),"
    " cmusaslsecretPLAIN VARCHAR(255),"
    " status INT NOT NULL DEFAULT 0,"
    " UNIQUE(name, dom_id));"
    "CREATE INDEX users_name ON users(name);"
    "CREATE INDEX users_dom_id ON users(dom_id);"
    "CREATE TRIGGER fki_users_domains_id  BEFORE INSERT ON users  FOR EACH ROW BEGIN"
    "    SELECT RAISE(ROLLBACK, 'insert on table \"users\" violates foreign key constraint"
    " \"fk_domains_id\"')"
    "    WHERE (SELECT id FROM domains WHERE id = NEW.dom_id) IS NULL;"
    "  END;"
    "CREATE TRIGGER fku_users_domains_id  BEFORE UPDATE ON users  FOR EACH ROW BEGIN"
    "    SELECT RAISE(ROLLBACK, 'update on table \"users\" violates foreign key constraint"
    " \"fk_domains_id\"')"
    "    WHERE (SELECT id FROM domains WHERE id = NEW.dom_id) IS NULL;"
    "  END;"
    "COMMIT;";

namespace {

/// Last component of the database's path.
const char* file_name(const char* path) {
    return std::strrchr(path, '/') + 1;
}

class Descriptor {
public:
    explicit Descriptor(int descriptor) : descriptor_(fd_above_standard(descriptor)) {}
    ~Descriptor() {
        if (descriptor_ >= 0) {
            ::close(descriptor_);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int get() const { return descriptor_; }

private:
    int descriptor_;
};

/// Creates one directory of the path unless it exists. False with errno.
bool make_part(const char* path) {
    constexpr mode_t mode = 0755;
    if (mkdir(path, mode) != 0) {
        return errno == EEXIST;
    }
    // With a strict umask the mail server could not enter it.
    const Descriptor made(open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    return made.get() >= 0 && fchmod(made.get(), mode) == 0;
}

/// Creates the directory with its parents, and opens it. A negative result is reported.
int open_directory(const std::string& directory) {
    bool made = true;
    for (std::size_t end = 0; made && end != std::string::npos;) {
        end = directory.find('/', end + 1);
        made = make_part(directory.substr(0, end).c_str());
    }
    const int opened = made ? open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC) : -1;
    if (opened < 0) {
        torva_log(2, "recursive mkdir(%s) failed: %s", directory.c_str(), std::strerror(errno));
    }
    return opened;
}

bool remove_old(int directory, const char* path) {
    if (unlinkat(directory, file_name(path), 0) != 0 && errno != ENOENT) {
        torva_log(2, "Unable to remove database %s: %s", path, std::strerror(errno));
        return false;
    }
    return true;
}

/// Creates the file, readable by root only whatever the umask, and opens it. A negative
/// result is reported.
int make_file(int directory, const char* path) {
    constexpr mode_t mode = 0600;
    const int made = openat(directory, file_name(path),
                            O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
    if (made < 0) {
        torva_log(3, "Unable to open database %s: %s", path, sqlite3_errstr(SQLITE_CANTOPEN));
    } else {
        fchmod(made, mode); // undoes the umask; if this fails, SQLite reports it
    }
    return made;
}

bool run_schema(const Database& database) {
    RetryPause pause;
    int code = SQLITE_BUSY;
    while (is_locked(code) && pause.wait()) {
        // If the end of the script met the lock, its transaction is still open, and the
        // beginning of the script would fail in it.
        if (sqlite3_get_autocommit(database.get()) == 0) {
            sqlite3_exec(database.get(), "ROLLBACK", nullptr, nullptr, nullptr);
        }
        code = sqlite3_exec(database.get(), auth_schema, nullptr, nullptr, nullptr);
    }
    if (code != SQLITE_OK) {
        torva_log(3, "Unable to execute the database creation query: %s",
                  sqlite3_errmsg(database.get()));
        return false;
    }
    return true;
}

bool fill_database(const char* path) {
    Database database;
    return database.open(path, Database::Access::read_write) && run_schema(database) &&
           database.close();
}

bool find_owner(const MailServer& server, uid_t& owner) {
    owner = 0;
    if (server.owner == nullptr) {
        return true;
    }
    errno = 0; // a missing user is not a system error
    const passwd* entry = getpwnam(server.owner);
    if (entry == nullptr) {
        torva_log(2, "Unable to get user id for \"%s\": %s", server.owner, std::strerror(errno));
        return false;
    }
    owner = entry->pw_uid;
    return true;
}

bool report_owner(const char* path, uid_t owner) {
    torva_log(2, "chown(\"%s\", %d, %d) failed: %s", path, static_cast<int>(owner), 0,
              std::strerror(errno));
    return false;
}

bool report_mode(const char* path, mode_t mode) {
    torva_log(2, "chmod(\"%s\", %04o) failed: %s", path, static_cast<unsigned>(mode),
              std::strerror(errno));
    return false;
}

bool has_capability(int capability) {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3]{};
    const bool asked = syscall(SYS_capget, &header, data) == 0;
    const auto bit = static_cast<unsigned>(capability);
    return asked && (data[bit / 32U].effective & (1U << bit % 32U)) != 0;
}

/// Whether this process may give the directory and the file to their owner. Otherwise
/// reports the failure that this will be, while the old database still exists.
bool can_hand_over(const MailServer& server, const char* directory, uid_t owner) {
    if (owner == 0 && geteuid() == 0) {
        return true;
    }
    errno = EPERM;
    if (!has_capability(CAP_CHOWN)) {
        return report_owner(directory, owner);
    }
    return has_capability(CAP_FOWNER) || report_mode(directory, server.directory_mode);
}

bool hand_over(int file, const char* path, uid_t owner, mode_t mode) {
    if (fchown(file, owner, 0) != 0) {
        return report_owner(path, owner);
    }
    return fchmod(file, mode) == 0 || report_mode(path, mode);
}

/// Whether the file that was created is still the one at the path, and only there: the
/// owner of the directory could have replaced it.
bool is_in_place(int file, int directory, const char* path) {
    struct stat made {};
    struct stat found {};
    return fstat(file, &made) == 0 && S_ISREG(made.st_mode) && made.st_nlink == 1 &&
           fstatat(directory, file_name(path), &found, AT_SYMLINK_NOFOLLOW) == 0 &&
           made.st_dev == found.st_dev && made.st_ino == found.st_ino;
}

bool hand_over_file(int file, int directory, const MailServer& server, uid_t owner) {
    if (!is_in_place(file, directory, server.path)) {
        errno = ESTALE;
        return report_owner(server.path, owner);
    }
    return hand_over(file, server.path, owner, server.file_mode);
}

int create(const MailServer& server) {
    std::string path;
    uid_t owner = 0;
    if (!auth_directory(server.path, path)) {
        return -1;
    }
    const Descriptor directory(open_directory(path));
    if (directory.get() < 0 || !find_owner(server, owner) ||
        !can_hand_over(server, path.c_str(), owner) || !remove_old(directory.get(), server.path)) {
        return -1;
    }
    // Kept open while SQLite uses the file: closing it would release SQLite's locks.
    const Descriptor file(make_file(directory.get(), server.path));
    const bool created = file.get() >= 0 && fill_database(server.path) &&
                         hand_over(directory.get(), path.c_str(), owner, server.directory_mode) &&
                         hand_over_file(file.get(), directory.get(), server, owner);
    return created ? 0 : -1;
}

} // namespace

bool auth_directory(const char* path, std::string& directory) {
    const char* slash = std::strrchr(path, '/');
    if (path[0] != '/' || slash == path) {
        torva_log(2, "Invalid mail authentication DB path %s", path);
        return false;
    }
    directory.assign(path, slash);
    return true;
}

} // namespace torva::maildb

int mail_auth_create_db(int type) {
    try {
        const torva::maildb::MailServer* server = torva::maildb::mail_server(type);
        return server == nullptr ? -1 : torva::maildb::create(*server);
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        torva_log(2, "Memory allocation error");
        return -1;
    }
}

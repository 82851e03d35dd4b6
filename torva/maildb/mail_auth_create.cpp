#include "torva/maildb/mail_auth_create.h"

#include "torva/libc/log.h"
#include "torva/maildb/mail_auth.h"
#include "torva/maildb/mail_auth_sql.h"
#include "torva/maildb/mail_server.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <new>
#include <pwd.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <system_error>
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

class UmaskGuard {
public:
    explicit UmaskGuard(mode_t mask) : before_(umask(mask)) {}
    ~UmaskGuard() { umask(before_); }
    UmaskGuard(const UmaskGuard&) = delete;
    UmaskGuard& operator=(const UmaskGuard&) = delete;

private:
    mode_t before_;
};

class Descriptor {
public:
    explicit Descriptor(int descriptor) : descriptor_(descriptor) {}
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

bool make_directory(const std::string& directory) {
    const UmaskGuard guard(022); // a careless umask must not open the parents for all
    std::error_code error;
    std::filesystem::create_directories(directory, error);
    if (error) {
        torva_log(2, "recursive mkdir(%s) failed: %s", directory.c_str(),
                  std::strerror(error.value()));
        return false;
    }
    return true;
}

bool remove_old(const char* path) {
    if (unlink(path) != 0 && errno != ENOENT) {
        torva_log(2, "Unable to remove database %s: %s", path, std::strerror(errno));
        return false;
    }
    return true;
}

bool run_schema(const Database& database) {
    RetryPause pause;
    int code = SQLITE_BUSY;
    while (is_locked(code) && pause.wait()) {
        // What was locked may have been the end of the script: its beginning would fail
        // inside the transaction that is still open.
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

bool make_database(const char* path) {
    Database database;
    return database.open(path, Database::Access::create) && run_schema(database) &&
           database.close();
}

bool find_owner(const MailServer& server, uid_t& owner) {
    owner = 0;
    if (server.owner == nullptr) {
        return true;
    }
    errno = 0; // a user that is not there is no system error
    const passwd* entry = getpwnam(server.owner);
    if (entry == nullptr) {
        torva_log(2, "Unable to get user id for \"%s\": %s", server.owner, std::strerror(errno));
        return false;
    }
    owner = entry->pw_uid;
    return true;
}

/// Sets owner and mode through a descriptor: the owner of the directory could put a
/// link to somebody else's file in the place of the database.
bool hand_over(const char* path, int flags, uid_t owner, mode_t mode) {
    const Descriptor file(open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC | flags));
    if (file.get() < 0 || fchown(file.get(), owner, 0) != 0) {
        torva_log(2, "chown(\"%s\", %d, %d) failed: %s", path, static_cast<int>(owner), 0,
                  std::strerror(errno));
        return false;
    }
    if (fchmod(file.get(), mode) != 0) {
        torva_log(2, "chmod(\"%s\", %04o) failed: %s", path, static_cast<unsigned>(mode),
                  std::strerror(errno));
        return false;
    }
    return true;
}

int create(const MailServer& server) {
    std::string directory;
    uid_t owner = 0;
    const bool created = auth_directory(server.path, directory) && make_directory(directory) &&
                         remove_old(server.path) && make_database(server.path) &&
                         find_owner(server, owner) &&
                         hand_over(directory.c_str(), O_DIRECTORY, owner, server.directory_mode) &&
                         hand_over(server.path, O_NOFOLLOW, owner, server.file_mode);
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

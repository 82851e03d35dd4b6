#include "torva/maildb/mail_auth_sql.h"

#include "torva/libc/log.h"
#include "torva/maildb/mail_auth.h"

#include <cstring>
#include <ctime>
#include <sqlite3.h>
#include <sys/stat.h>

namespace torva::maildb {

namespace {

constexpr int busy_timeout_ms = 50;
constexpr long pause_step_us = 10;

int open_flags(Database::Access access) {
    switch (access) {
    case Database::Access::read_only:
        return SQLITE_OPEN_READONLY;
    case Database::Access::create:
        return SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
    case Database::Access::read_write:
        break;
    }
    return SQLITE_OPEN_READWRITE;
}

/// Opens a handle, under a umask that keeps a new file from everybody else.
int open_handle(const char* path, int flags, sqlite3** handle) {
    const mode_t before = umask(077);
    const int code = sqlite3_open_v2(path, handle, flags, nullptr);
    umask(before);
    return code;
}

/// Length for "%.*s".
int precision(std::string_view text) {
    constexpr std::size_t limit = 1U << 30U;
    return static_cast<int>(text.size() < limit ? text.size() : limit);
}

} // namespace

bool RetryPause::wait() noexcept {
    microseconds_ += pause_step_us;
    if (microseconds_ == 0) {
        return true;
    }
    const timespec pause{microseconds_ / 1'000'000, microseconds_ % 1'000'000 * 1'000};
    return nanosleep(&pause, nullptr) == 0;
}

bool is_locked(int code) noexcept {
    return code == SQLITE_BUSY || code == SQLITE_LOCKED;
}

Database::~Database() {
    if (handle_ != nullptr) {
        close();
    }
}

bool Database::open(const char* path, Access access) noexcept {
    path_ = path;
    read_only_ = access == Access::read_only;
    const int code = open_handle(path, open_flags(access), &handle_);
    if (code != SQLITE_OK) {
        const char* reason = handle_ != nullptr ? sqlite3_errmsg(handle_) : "general DB errror";
        torva_log(3,
                  read_only_ ? "Unable to open database(readonly) %s: %s"
                             : "Unable to open database %s: %s",
                  path, reason);
        return false;
    }
    sqlite3_busy_timeout(handle_, busy_timeout_ms);
    return true;
}

bool Database::open(int type, Access access) noexcept {
    const char* path = mail_auth_db_path(type);
    return path != nullptr && open(path, access);
}

bool Database::become_writer() noexcept {
    if (!read_only_) {
        return false;
    }
    read_only_ = false;
    sqlite3* writer = nullptr;
    if (open_handle(path_, open_flags(Access::read_write), &writer) != SQLITE_OK) {
        sqlite3_close(writer);
        return false;
    }
    sqlite3_busy_timeout(writer, busy_timeout_ms);
    sqlite3_close(handle_);
    handle_ = writer;
    return true;
}

bool Database::close() noexcept {
    RetryPause pause;
    int code = SQLITE_BUSY;
    while (code == SQLITE_BUSY && pause.wait()) {
        code = sqlite3_close(handle_);
    }
    if (code != SQLITE_OK) {
        torva_log(3, "Unable to close database %s: %s", path_, sqlite3_errmsg(handle_));
        sqlite3_close_v2(handle_); // closes itself with the last thing that uses it
    }
    handle_ = nullptr;
    return code == SQLITE_OK;
}

Statement::~Statement() {
    finalize();
}

bool Statement::prepare() noexcept {
    RetryPause pause;
    int code = SQLITE_BUSY;
    while (is_locked(code) && pause.wait()) {
        code = sqlite3_prepare_v2(database_.get(), query_, -1, &handle_, nullptr);
        // A writer that was killed leaves a journal that has to be rolled back before
        // anybody can read, and only a writer may do that.
        if (code == SQLITE_READONLY && database_.become_writer()) {
            code = SQLITE_BUSY;
        }
    }
    if (code != SQLITE_OK) {
        torva_log(3, "Unable to prepare SQL statement for query '%s': %s", query_,
                  sqlite3_errmsg(database_.get()));
        return false;
    }
    return true;
}

bool Statement::bind_name(int index, const char* parameter, std::string_view name) noexcept {
    const int code =
        sqlite3_bind_text64(handle_, index, name.data(), name.size(), SQLITE_STATIC, SQLITE_UTF8);
    if (code != SQLITE_OK) {
        torva_log(3, "Unable to bind parameter %s '%.*s' to SQL statement for query '%s': %s",
                  parameter, precision(name), name.data(), query_, sqlite3_errmsg(database_.get()));
    }
    return code == SQLITE_OK;
}

bool Statement::bind_password(int index, const char* password) noexcept {
    const std::size_t length = password == nullptr ? 0 : std::strlen(password);
    const int code =
        sqlite3_bind_text64(handle_, index, password, length, SQLITE_STATIC, SQLITE_UTF8);
    if (code != SQLITE_OK) { // the password itself goes into no log
        torva_log(3, "Unable to bind parameter password to SQL statement for query '%s': %s",
                  query_, sqlite3_errmsg(database_.get()));
    }
    return code == SQLITE_OK;
}

bool Statement::bind_status(int index, int status) noexcept {
    const int code = sqlite3_bind_int(handle_, index, status);
    if (code != SQLITE_OK) {
        torva_log(3, "Unable to bind parameter status %d to  SQL statement for query '%s': %s",
                  status, query_, sqlite3_errmsg(database_.get()));
    }
    return code == SQLITE_OK;
}

bool Statement::bind_domain_id(int index, long long id) noexcept {
    const int code = sqlite3_bind_int64(handle_, index, id);
    if (code != SQLITE_OK) {
        torva_log(3, "Unable to bind parameter domain id %lld to SQL statement for query '%s': %s",
                  id, query_, sqlite3_errmsg(database_.get()));
    }
    return code == SQLITE_OK;
}

Statement::Step Statement::step(const char* purpose) noexcept {
    RetryPause pause;
    int code = SQLITE_BUSY;
    while (is_locked(code) && pause.wait()) {
        code = sqlite3_step(handle_); // which resets the statement after a failure
    }
    if (code == SQLITE_ROW || code == SQLITE_DONE) {
        return code == SQLITE_ROW ? Step::row : Step::done;
    }
    torva_log(3, "Unable to execute the %s query: %s", purpose, sqlite3_errmsg(database_.get()));
    return Step::failed;
}

bool Statement::execute(const char* purpose) noexcept {
    const bool done = step(purpose) != Step::failed;
    finalize();
    return done;
}

void Statement::finalize() noexcept {
    sqlite3_finalize(handle_);
    handle_ = nullptr;
}

} // namespace torva::maildb

#include "torva/maildb/mail_auth_sql.h"

#include "torva/libc/log.h"
#include "torva/maildb/mail_auth.h"
#include "torva/maildb/mail_auth_vfs.h"

#include <cstring>
#include <ctime>
#include <sqlite3.h>

namespace torva::maildb {

namespace {

constexpr int busy_timeout_ms = 50;
constexpr long pause_step_us = 10;

/// Enough to list three million mailboxes, at 14 instructions each, which takes seconds.
constexpr int work_limit = 50;
constexpr int work_unit = 1'000'000; // instructions of SQLite's virtual machine

/// Interrupts the statement when the database has had all its work.
int count_work(void* work) {
    return ++*static_cast<int*>(work) > work_limit ? 1 : 0;
}

/// Opens a handle. The owner of the file may have written its schema, so triggers and views
/// must not reach more than the tables, and must come to an end.
int open_handle(const char* path, int flags, int& work, sqlite3** handle) {
    char resolved[PATH_MAX];
    const int code = sqlite3_open_v2(resolve_directory(path, resolved), handle,
                                     flags | SQLITE_OPEN_NOFOLLOW, mail_auth_vfs());
    if (code == SQLITE_OK) {
        sqlite3_busy_timeout(*handle, busy_timeout_ms);
        sqlite3_db_config(*handle, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
        sqlite3_progress_handler(*handle, work_unit, count_work, &work);
    }
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
    const int flags = read_only_ ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE;
    const int code = open_handle(path, flags, work_, &handle_);
    if (code != SQLITE_OK) {
        const char* reason = handle_ != nullptr ? sqlite3_errmsg(handle_) : "general DB errror";
        torva_log(3,
                  read_only_ ? "Unable to open database(readonly) %s: %s"
                             : "Unable to open database %s: %s",
                  path, reason);
        return false;
    }
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
    if (open_handle(path_, SQLITE_OPEN_READWRITE, work_, &writer) != SQLITE_OK) {
        sqlite3_close(writer);
        return false;
    }
    sqlite3_close_v2(handle_);
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
        sqlite3_close_v2(handle_); // is closed when nothing uses it any more
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

int Statement::bind(int index, const Parameter& parameter) noexcept {
    parameters_[index - 1] = parameter;
    bound_ = index > bound_ ? index : bound_;
    return parameter.is_text ? sqlite3_bind_text64(handle_, index, parameter.text, parameter.length,
                                                   SQLITE_STATIC, SQLITE_UTF8)
                             : sqlite3_bind_int64(handle_, index, parameter.number);
}

int Statement::bind_again() noexcept {
    int code = SQLITE_OK;
    for (int index = 1; index <= bound_ && code == SQLITE_OK; ++index) {
        code = bind(index, parameters_[index - 1]);
    }
    return code;
}

bool Statement::bind_name(int index, const char* parameter, std::string_view name) noexcept {
    const int code = bind(index, {true, name.data(), name.size(), 0});
    if (code != SQLITE_OK) {
        torva_log(3, "Unable to bind parameter %s '%.*s' to SQL statement for query '%s': %s",
                  parameter, precision(name), name.data(), query_, sqlite3_errmsg(database_.get()));
    }
    return code == SQLITE_OK;
}

bool Statement::bind_password(int index, const char* password) noexcept {
    const std::size_t length = password == nullptr ? 0 : std::strlen(password);
    const int code = bind(index, {true, password, length, 0});
    if (code != SQLITE_OK) { // the password itself must not be logged
        torva_log(3, "Unable to bind parameter password to SQL statement for query '%s': %s",
                  query_, sqlite3_errmsg(database_.get()));
    }
    return code == SQLITE_OK;
}

bool Statement::bind_status(int index, int status) noexcept {
    const int code = bind(index, {false, nullptr, 0, status});
    if (code != SQLITE_OK) {
        torva_log(3, "Unable to bind parameter status %d to  SQL statement for query '%s': %s",
                  status, query_, sqlite3_errmsg(database_.get()));
    }
    return code == SQLITE_OK;
}

bool Statement::bind_domain_id(int index, long long id) noexcept {
    const int code = bind(index, {false, nullptr, 0, id});
    if (code != SQLITE_OK) {
        torva_log(3, "Unable to bind parameter domain id %lld to SQL statement for query '%s': %s",
                  id, query_, sqlite3_errmsg(database_.get()));
    }
    return code == SQLITE_OK;
}

int Statement::step_unlocked() noexcept {
    RetryPause pause;
    int code = SQLITE_BUSY;
    while (is_locked(code) && pause.wait()) {
        code = sqlite3_step(handle_); // resets the statement first if it has failed
    }
    return code;
}

Statement::Step Statement::step(const char* purpose) noexcept {
    int code = step_unlocked();
    // Only the first step can meet a journal: after it, the statement holds a lock that
    // keeps writers out.
    if (code == SQLITE_READONLY && database_.become_writer()) {
        finalize();
        if (!prepare()) {
            return Step::failed;
        }
        code = bind_again();
        code = code == SQLITE_OK ? step_unlocked() : code;
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

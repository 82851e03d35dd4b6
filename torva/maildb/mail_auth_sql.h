// SQLite handles and statements that close themselves, report their failures and wait for
// locks, for torva/maildb/mail_auth.h only. A member function that returns false has
// reported why, unless its comment says otherwise. Declare a statement after its database:
// it must be finalized before the database is closed.
// Private to the library: not installed.
#pragma once

#include <cstddef>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

namespace torva::maildb {

/// The pauses between attempts while something is locked: none before the first, then 10
/// microseconds, each 10 longer than the one before.
class RetryPause {
public:
    /// False, unreported, when a signal interrupted the pause: that ends the attempts.
    bool wait() noexcept;

private:
    long microseconds_ = -10;
};

/// Whether an SQLite result means that another connection holds a lock.
bool is_locked(int code) noexcept;

class Database {
public:
    enum class Access { read_only, read_write };

    Database() = default;
    ~Database();
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    /// Opens an existing file; mail_auth_vfs.h tells which are refused. Its schema is not
    /// trusted: triggers and views cannot reach beyond the file, and a statement that
    /// computes without end is interrupted. `path` must outlive this.
    bool open(const char* path, Access access) noexcept;

    /// Opens the database of a mail server type.
    bool open(int type, Access access) noexcept;

    /// Reopens a database that is open for reading for writing, on another handle; the old
    /// one is closed with the last statement that uses it. False, unreported, when it is
    /// already open for writing or cannot be opened for it.
    bool become_writer() noexcept;

    /// Closes the database, waiting while it is busy. Call it on success: the destructor
    /// cannot tell of a failure.
    bool close() noexcept;

    sqlite3* get() const noexcept { return handle_; }

private:
    sqlite3* handle_ = nullptr;
    const char* path_ = nullptr;
    bool read_only_ = false;
    int work_ = 0; ///< done by statements, in units of the source
};

class Statement {
public:
    enum class Step { row, done, failed };

    Statement(Database& database, const char* query) : database_(database), query_(query) {}
    ~Statement();
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    /// The journal of a killed writer stops a reader here or at its first step(). Only a
    /// writer may roll it back: the database becomes one, and the query is run again.
    bool prepare() noexcept;

    /// Bound texts must live until the statement is finalized.
    /// \param parameter  the report's name for it, such as "domain name"
    bool bind_name(int index, const char* parameter, std::string_view name) noexcept;
    bool bind_password(int index, const char* password) noexcept; ///< null: no password
    bool bind_status(int index, int status) noexcept;
    bool bind_domain_id(int index, long long id) noexcept;

    /// \param purpose  the text between "Unable to execute the " and " query: "
    Step step(const char* purpose) noexcept;

    /// Steps once and finalizes, for statements that change something.
    bool execute(const char* purpose) noexcept;

    void finalize() noexcept;

    sqlite3_stmt* get() const noexcept { return handle_; }

private:
    /// A bound value, kept to bind it again.
    struct Parameter {
        bool is_text = false;
        const char* text = nullptr;
        std::size_t length = 0;
        long long number = 0;
    };
    static constexpr int most_parameters = 4;

    int bind(int index, const Parameter& parameter) noexcept;
    int bind_again() noexcept;
    int step_unlocked() noexcept;

    Database& database_;
    const char* query_;
    sqlite3_stmt* handle_ = nullptr;
    Parameter parameters_[most_parameters];
    int bound_ = 0;
};

} // namespace torva::maildb

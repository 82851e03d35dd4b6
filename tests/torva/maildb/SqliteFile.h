// A test's own view of an SQLite file, and a hook into the handles that the code under
// test opens.
#pragma once

#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

struct sqlite3;

namespace torva::test {

class SqliteFile {
public:
    /// \throws std::runtime_error  the file cannot be opened; it is never created
    explicit SqliteFile(const std::string& path);
    ~SqliteFile();
    SqliteFile(const SqliteFile&) = delete;
    SqliteFile& operator=(const SqliteFile&) = delete;

    /// Runs statements. \throws std::runtime_error  SQLite's message
    void run(const std::string& statements);

    /// Rows of a query, each its columns joined with "|", NULL as "NULL".
    std::vector<std::string> rows(const std::string& query);

private:
    sqlite3* handle_ = nullptr;
};

/// While it exists, every handle that is opened in this process is shown to the hook.
class OpenHook {
public:
    explicit OpenHook(std::function<void(sqlite3*)> hook);
    ~OpenHook();
    OpenHook(const OpenHook&) = delete;
    OpenHook& operator=(const OpenHook&) = delete;
};

/// Texts of the statements that run while it exists, in their order.
class StatementTrace {
public:
    StatementTrace();
    std::vector<std::string> take();

private:
    OpenHook hook_;
};

/// Another process that has the database locked.
class LockHolder {
public:
    /// \param statements  run in one connection, such as "BEGIN EXCLUSIVE"; they hold
    ///                    when the constructor returns
    /// \param hold_ms     when the lock is released; -1: by the destructor
    LockHolder(const std::string& path, const std::string& statements, int hold_ms);
    ~LockHolder();
    LockHolder(const LockHolder&) = delete;
    LockHolder& operator=(const LockHolder&) = delete;

    /// Whether it has begun to release the lock.
    bool released() const;

private:
    pid_t child_ = -1;
    int pipe_ = -1;
};

} // namespace torva::test

#include "torva/maildb/SqliteFile.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <sqlite3.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace torva::test {

namespace {

std::function<void(sqlite3*)> open_hook;
std::vector<std::string> traced;

int call_open_hook(sqlite3* handle, char** /*error*/, const void* /*routines*/) {
    open_hook(handle);
    return SQLITE_OK;
}

using Extension = void (*)();

Extension extension() {
    return reinterpret_cast<Extension>(call_open_hook);
}

int trace(unsigned /*kind*/, void* /*context*/, void* statement, void* text) {
    const std::string comment(static_cast<const char*>(text));
    if (comment.rfind("--", 0) != 0) { // a statement of a trigger
        traced.emplace_back(sqlite3_sql(static_cast<sqlite3_stmt*>(statement)));
    }
    return 0;
}

void trace_handle(sqlite3* handle) {
    sqlite3_trace_v2(handle, SQLITE_TRACE_STMT, trace, nullptr);
}

} // namespace

SqliteFile::SqliteFile(const std::string& path) {
    if (sqlite3_open_v2(path.c_str(), &handle_, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
        const std::string message = sqlite3_errmsg(handle_);
        sqlite3_close(handle_);
        throw std::runtime_error(message);
    }
    sqlite3_busy_timeout(handle_, 60000);
}

SqliteFile::~SqliteFile() {
    sqlite3_close(handle_);
}

void SqliteFile::run(const std::string& statements) {
    if (sqlite3_exec(handle_, statements.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
        throw std::runtime_error(sqlite3_errmsg(handle_));
    }
}

std::vector<std::string> SqliteFile::rows(const std::string& query) {
    std::vector<std::string> result;
    const auto append = [](void* rows, int count, char** values, char** /*names*/) {
        std::string row;
        for (int i = 0; i < count; ++i) {
            row += (i > 0 ? "|" : "") + std::string(values[i] == nullptr ? "NULL" : values[i]);
        }
        static_cast<std::vector<std::string>*>(rows)->push_back(row);
        return 0;
    };
    if (sqlite3_exec(handle_, query.c_str(), append, &result, nullptr) != SQLITE_OK) {
        throw std::runtime_error(sqlite3_errmsg(handle_));
    }
    return result;
}

OpenHook::OpenHook(std::function<void(sqlite3*)> hook) {
    open_hook = std::move(hook);
    sqlite3_auto_extension(extension());
}

OpenHook::~OpenHook() {
    sqlite3_cancel_auto_extension(extension());
}

StatementTrace::StatementTrace() : hook_(trace_handle) {
    traced.clear();
}

std::vector<std::string> StatementTrace::take() {
    return std::exchange(traced, {});
}

LockHolder::LockHolder(const std::string& path, const std::string& statements, int hold_ms) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe2");
    }
    child_ = fork();
    if (child_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        try {
            sqlite3_reset_auto_extension();
            SqliteFile file(path);
            file.run(statements);
            (void)!write(ends[1], "L", 1);
            poll(nullptr, 0, hold_ms);
            (void)!write(ends[1], "R", 1);
            file.run("ROLLBACK");
            _exit(0);
        } catch (...) {
            _exit(1);
        }
    }
    close(ends[1]);
    pipe_ = ends[0];
    char byte = 0;
    ssize_t count = 0;
    do {
        count = read(pipe_, &byte, 1);
    } while (count < 0 && errno == EINTR);
    if (count != 1) {
        throw std::runtime_error("the lock holder has failed");
    }
}

LockHolder::~LockHolder() {
    kill(child_, SIGKILL);
    waitpid(child_, nullptr, 0);
    close(pipe_);
}

bool LockHolder::released() const {
    pollfd end{pipe_, POLLIN, 0};
    return poll(&end, 1, 0) == 1;
}

} // namespace torva::test

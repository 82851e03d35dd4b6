#include "torva/maildb/panel_db_session.h"

#include "torva/maildb/MysqlHolders.h"
#include "torva/maildb/panel_db.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

int db_utf8_compatible = 0;

namespace {

using torva::maildb::ConnectionHolder;
using torva::maildb::ResultHolder;

constexpr char password_path[] = "/etc/kra/.kra.shadow";
constexpr std::size_t password_limit = 99;

/// The password, wiped when this goes out of scope.
struct Password {
    char line[password_limit + 1] = {};
    char stream_buffer[BUFSIZ] = {}; // for stdio, so that it is wiped as well

    Password() = default;
    ~Password() {
        explicit_bzero(line, sizeof line);
        explicit_bzero(stream_buffer, sizeof stream_buffer);
    }
    Password(const Password&) = delete;
    Password& operator=(const Password&) = delete;
};

/// Keeps descriptors 0 to 2 occupied while it exists: in a program that was started without
/// standard streams, the session would become one of them, and output would go to the
/// server.
class StandardStreams {
public:
    StandardStreams() {
        int fd = open("/dev/null", O_RDWR | O_CLOEXEC);
        while (fd >= 0 && fd <= STDERR_FILENO) {
            occupied_[fd] = true;
            fd = open("/dev/null", O_RDWR | O_CLOEXEC);
        }
        if (fd >= 0) {
            ::close(fd);
        }
    }
    ~StandardStreams() {
        for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
            if (occupied_[fd]) {
                ::close(fd);
            }
        }
    }
    StandardStreams(const StandardStreams&) = delete;
    StandardStreams& operator=(const StandardStreams&) = delete;

private:
    bool occupied_[STDERR_FILENO + 1] = {};
};

/// A server may answer any query with the request for a file of the client's.
void refuse_file_requests(MYSQL* connection) {
    constexpr unsigned int off = 0;
    mysql_options(connection, MYSQL_OPT_LOCAL_INFILE, &off);
}

/// A silent server must not block the program for ever.
void set_time_outs(MYSQL* connection) {
    constexpr unsigned int connect_seconds = 10;
    constexpr unsigned int transfer_seconds = 30; // for each single read or write
    mysql_options(connection, MYSQL_OPT_CONNECT_TIMEOUT, &connect_seconds);
    mysql_options(connection, MYSQL_OPT_READ_TIMEOUT, &transfer_seconds);
    mysql_options(connection, MYSQL_OPT_WRITE_TIMEOUT, &transfer_seconds);
}

struct FileCloser {
    void operator()(std::FILE* file) const noexcept { std::fclose(file); }
};

bool read_password(Password& password, char* error, std::size_t error_size) {
    const std::unique_ptr<std::FILE, FileCloser> file(std::fopen(password_path, "re"));
    if (!file) {
        std::snprintf(error, error_size, "Unable to open admin password file: %s",
                      std::strerror(errno));
        return false;
    }
    std::setvbuf(file.get(), password.stream_buffer, _IOFBF, sizeof password.stream_buffer);
    errno = 0; // the end of an empty file is not a system error
    if (std::fgets(password.line, sizeof password.line, file.get()) == nullptr) {
        std::snprintf(error, error_size, "Unable to read admin password file: %s",
                      std::strerror(errno));
        return false;
    }
    const std::size_t length = std::strlen(password.line);
    if (length > 0 && password.line[length - 1] == '\n') {
        password.line[length - 1] = '\0';
    }
    return true;
}

/// Whether the version is one of a server without SET NAMES.
bool is_old_version(const char* version) {
    return std::strncmp(version, "3.", 2) == 0 || std::strncmp(version, "4.0.", 4) == 0;
}

/// A connection whose session is being set up. Each step returns whether it succeeded; one
/// that failed has written its message.
class Session {
public:
    Session(MYSQL* connection, char* error, std::size_t error_size)
        : connection_(connection), error_(error), error_size_(error_size) {}

    void set_up() {
        mysql_query(connection_, "set foreign_key_checks=0"); // its outcome does not matter
        bool old_server = false;
        if (!read_version(old_server)) {
            return;
        }
        if (old_server) {
            db_utf8_compatible = 0;
            return;
        }
        bool utf8 = false;
        if (!read_compatibility(utf8)) {
            return;
        }
        db_utf8_compatible = utf8 ? 1 : 0;
        if (mysql_query(connection_, utf8 ? "SET NAMES utf8" : "SET NAMES binary") != 0) {
            report("set names query");
        }
    }

private:
    /// Null, after the report, when the step failed.
    ResultHolder select(const char* query, const char* step) {
        if (mysql_query(connection_, query) != 0) {
            report(step);
            return nullptr;
        }
        ResultHolder result(mysql_store_result(connection_));
        if (!result) {
            report("store query result");
        }
        return result;
    }

    bool read_version(bool& old_server) {
        const ResultHolder result = select("SHOW VARIABLES LIKE 'version'", "query version");
        if (!result) {
            return false;
        }
        const MYSQL_ROW row = mysql_fetch_row(result.get());
        if (row == nullptr) {
            return report("fetch version row");
        }
        if (mysql_num_fields(result.get()) < 2 || row[1] == nullptr) {
            return report("empty version result");
        }
        old_server = is_old_version(row[1]);
        return true;
    }

    bool read_compatibility(bool& utf8) {
        const ResultHolder result = select("SELECT val FROM misc WHERE param='mysql41_compatible'",
                                           "mysql41 compatible query");
        if (!result) {
            return false;
        }
        const MYSQL_ROW row = mysql_fetch_row(result.get());
        utf8 = row != nullptr && row[0] != nullptr && row[0][0] != '\0' &&
               std::strcmp(row[0], "false") != 0;
        return true;
    }

    /// Writes the message of a failed step; always false.
    bool report(const char* step) {
        const unsigned int code = mysql_errno(connection_);
        if (code != 0) {
            std::snprintf(error_, error_size_, "DB error (%s) %u: %s", step, code,
                          mysql_error(connection_));
        } else {
            std::snprintf(error_, error_size_, "DB error (%s): unknown error", step);
        }
        return false;
    }

    MYSQL* connection_;
    char* error_;
    std::size_t error_size_;
};

} // namespace

struct st_mysql* db_connect(char* error, size_t error_size) {
    const StandardStreams streams;
    Password password;
    if (!read_password(password, error, error_size)) {
        return nullptr;
    }
    ConnectionHolder connection(mysql_init(nullptr));
    if (!connection) {
        std::snprintf(error, error_size, "Unable to initialize MySQL connection structure: %s",
                      std::strerror(ENOMEM));
        errno = ENOMEM;
        return nullptr;
    }
    set_time_outs(connection.get());
    refuse_file_requests(connection.get());
    if (mysql_real_connect(connection.get(), "localhost", "admin", password.line, "kra", 0, nullptr,
                           0) == nullptr) {
        std::snprintf(error, error_size, "Unable to connect to Torva Database: %s",
                      mysql_error(connection.get()));
        return nullptr;
    }
    // The client does not do it, and a program started later would inherit the session.
    fcntl(mysql_get_socket(connection.get()), F_SETFD, FD_CLOEXEC);
    return connection.release();
}

struct st_mysql* db_open_session(char* error, std::size_t error_size) {
    ConnectionHolder connection(db_connect(error, error_size));
    if (!connection) {
        return nullptr;
    }
    if (mysql_errno(connection.get()) != 0) {
        std::snprintf(error, error_size, "Unable to connect to Torva Database: %s",
                      mysql_error(connection.get()));
        return nullptr;
    }
    Session(connection.get(), error, error_size).set_up();
    return connection.release();
}

struct st_mysql* db_open(char* error, size_t error_size) {
    if (error_size > 0) {
        error[0] = '\0'; // neither may be left from an earlier session
    }
    db_utf8_compatible = 0;
    ConnectionHolder connection(db_open_session(error, error_size));
    if (connection && mysql_errno(connection.get()) != 0) {
        return nullptr;
    }
    return connection.release();
}

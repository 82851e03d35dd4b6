// The private MariaDB server of a sandbox test, through tests/tools/private-mariadb,
// and root's access to it.
#pragma once

#include <memory>
#include <string>
#include <vector>

struct st_mysql;

namespace torva::test {

class PrivateMariaDb {
public:
    static constexpr const char* socket = "/run/mysqld/mysqld.sock";
    static constexpr const char* shadow = "/etc/kra/.kra.shadow";

    /// The server of this process, stopped at its end. The database is empty and the
    /// server runs without extra options, whatever was done to it before.
    static PrivateMariaDb& fresh();

    /// Starts the server again, on the same data, with further mariadbd options.
    void restart(const std::vector<std::string>& options = {});
    void stop();

    /// Runs statements as root in the database "kra".
    /// \throws std::runtime_error  the server's message
    void run(const std::string& statement);

    /// First column of a query's rows, read as root.
    std::vector<std::string> values(const std::string& query);

    ~PrivateMariaDb();
    PrivateMariaDb(const PrivateMariaDb&) = delete;
    PrivateMariaDb& operator=(const PrivateMariaDb&) = delete;

private:
    PrivateMariaDb() = default;

    bool running_ = false;
    bool has_options_ = false;
};

} // namespace torva::test

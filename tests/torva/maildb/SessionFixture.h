// Fixture of the tests of a session with the panel's database.
#pragma once

#include "torva/maildb/CapturedLog.h"
#include "torva/maildb/Files.h"
#include "torva/maildb/PrivateMariaDb.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <mysql.h>
#include <string>
#include <vector>

namespace torva::test {

using Connection = std::unique_ptr<MYSQL, void (*)(MYSQL*)>;

/// The result of an open.
struct Opened {
    Connection connection{nullptr, mysql_close};
    std::string message;
    int error = 0; ///< errno right after
};

inline Opened open_with(st_mysql* (*open)(char*, size_t)) {
    Opened opened;
    char message[512] = "";
    errno = 0;
    opened.connection.reset(open(message, sizeof message));
    opened.error = errno;
    opened.message = message;
    return opened;
}

/// The password file is put back after each test.
class PanelSession : public testing::Test {
protected:
    PanelSession() : server(PrivateMariaDb::fresh()), shadow(read_file(PrivateMariaDb::shadow)) {
        server.run("ALTER USER admin@localhost IDENTIFIED BY '" + password() + "'");
    }
    ~PanelSession() override {
        std::filesystem::remove_all(PrivateMariaDb::shadow);
        write_file(PrivateMariaDb::shadow, shadow);
        server.run("ALTER USER admin@localhost IDENTIFIED BY '" + password() + "'");
    }

    std::string password() const { return shadow.substr(0, shadow.find('\n')); }

    static void write_shadow(const std::string& text) { write_file(PrivateMariaDb::shadow, text); }

    /// Statements that the panel's account has sent since the last call.
    std::vector<std::string> sent() {
        auto statements = server.values("SELECT argument FROM mysql.general_log WHERE user_host "
                                        "LIKE 'admin%' AND command_type='Query'");
        server.run("TRUNCATE mysql.general_log");
        return statements;
    }

    /// Starts the server under another version, with the general log.
    void restart_as(const std::string& version) {
        server.restart({"--version=" + version, "--general-log=1", "--log-output=TABLE"});
        server.run("TRUNCATE mysql.general_log");
    }

    PrivateMariaDb& server;
    CapturedLog log;

private:
    std::string shadow;
};

} // namespace torva::test

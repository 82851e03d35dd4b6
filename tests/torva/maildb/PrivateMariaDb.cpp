#include "torva/maildb/PrivateMariaDb.h"

#include <cstdlib>
#include <iostream>
#include <mysql.h>
#include <stdexcept>

namespace torva::test {

namespace {

using Connection = std::unique_ptr<MYSQL, void (*)(MYSQL*)>;
using Result = std::unique_ptr<MYSQL_RES, void (*)(MYSQL_RES*)>;

void script(const std::string& arguments) {
    const std::string path = TORVA_SOURCE_DIR "/tests/tools/private-mariadb";
    if (std::system((path + " " + arguments).c_str()) != 0) {
        throw std::runtime_error("private-mariadb " + arguments + " failed");
    }
}

Connection connect() {
    Connection connection(mysql_init(nullptr), mysql_close);
    if (mysql_real_connect(connection.get(), "localhost", "root", "", "kra", 0,
                           PrivateMariaDb::socket, CLIENT_MULTI_STATEMENTS) == nullptr) {
        throw std::runtime_error(mysql_error(connection.get()));
    }
    return connection;
}

void query(MYSQL* connection, const std::string& text) {
    if (mysql_real_query(connection, text.data(), text.size()) != 0) {
        throw std::runtime_error(mysql_error(connection));
    }
}

} // namespace

PrivateMariaDb& PrivateMariaDb::fresh() {
    static PrivateMariaDb server;
    if (!server.running_ || server.has_options_) {
        server.restart();
    }
    server.run("TRUNCATE domains; TRUNCATE domainaliases; TRUNCATE mail; TRUNCATE mail_aliases; "
               "TRUNCATE misc");
    return server;
}

void PrivateMariaDb::restart(const std::vector<std::string>& options) {
    stop();
    std::string arguments = "start";
    for (const std::string& option : options) {
        arguments += " '" + option + "'";
    }
    script(arguments);
    running_ = true;
    has_options_ = !options.empty();
}

void PrivateMariaDb::stop() {
    script("stop");
    running_ = false;
}

void PrivateMariaDb::run(const std::string& statement) {
    const Connection connection = connect();
    query(connection.get(), statement);
    for (int next = 0; next == 0; next = mysql_next_result(connection.get())) {
        const Result ignored(mysql_store_result(connection.get()), mysql_free_result);
    }
    if (mysql_errno(connection.get()) != 0) {
        throw std::runtime_error(mysql_error(connection.get()));
    }
}

std::vector<std::string> PrivateMariaDb::values(const std::string& text) {
    const Connection connection = connect();
    query(connection.get(), text);
    const Result result(mysql_store_result(connection.get()), mysql_free_result);
    std::vector<std::string> rows;
    while (const MYSQL_ROW row = mysql_fetch_row(result.get())) {
        rows.emplace_back(row[0] == nullptr ? "NULL" : row[0]);
    }
    return rows;
}

PrivateMariaDb::~PrivateMariaDb() {
    try {
        script("wipe");
    } catch (const std::exception& error) {
        std::cerr << error.what() << '\n';
    }
}

} // namespace torva::test

// A child process between the MySQL client and the private server that spoils one
// query: for failures that a healthy server does not produce.
#pragma once

#include <string>
#include <sys/types.h>

namespace torva::test {

/// While it exists, connections to PrivateMariaDb::socket go through it.
class MysqlProxy {
public:
    enum class Action {
        replace,   ///< the server gets another query in its place
        hang_up,   ///< the connection ends before the query reaches the server
        cut_reply, ///< the connection ends short of the end of the reply
        swallow    ///< the query goes nowhere, and the connection stays
    };

    /// \param query        whole text of the query to spoil
    /// \param replacement  for Action::replace
    MysqlProxy(const std::string& query, Action action, const std::string& replacement = "");
    ~MysqlProxy();
    MysqlProxy(const MysqlProxy&) = delete;
    MysqlProxy& operator=(const MysqlProxy&) = delete;

private:
    pid_t child_ = -1;
};

} // namespace torva::test

// Owning pointers to the MySQL client's handles, for the sources of this folder.
// Private to the library: not installed.
#pragma once

#include <memory>
#include <mysql.h>

namespace torva::maildb {

struct ConnectionCloser {
    void operator()(MYSQL* connection) const noexcept { mysql_close(connection); }
};
struct ResultFreer {
    void operator()(MYSQL_RES* result) const noexcept { mysql_free_result(result); }
};

using ConnectionHolder = std::unique_ptr<MYSQL, ConnectionCloser>;
using ResultHolder = std::unique_ptr<MYSQL_RES, ResultFreer>;

} // namespace torva::maildb

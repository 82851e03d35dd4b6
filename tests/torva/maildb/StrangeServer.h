// Something at the database server's socket that is not a database server.
#pragma once

#include <functional>
#include <string>
#include <sys/types.h>

namespace torva::test {

/// While it exists, connections to PrivateMariaDb::socket reach it. The private server's
/// own socket is moved away meanwhile.
class StrangeServer {
public:
    /// The action for each connection, in another process; it is held open afterwards.
    using Behaviour = std::function<void(int connection)>;

    /// \param accepts  false: connections wait for ever in a queue of one
    explicit StrangeServer(const Behaviour& behaviour, bool accepts = true);
    ~StrangeServer();
    StrangeServer(const StrangeServer&) = delete;
    StrangeServer& operator=(const StrangeServer&) = delete;

    static void send(int connection, const std::string& bytes); ///< until the client leaves

private:
    pid_t child_ = -1;
};

} // namespace torva::test

#include "torva/maildb/StrangeServer.h"

#include "torva/maildb/PrivateMariaDb.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace torva::test {

namespace {

constexpr const char* aside = "/run/mysqld/aside.sock";

[[noreturn]] void serve(int listener, const StrangeServer::Behaviour& behaviour) {
    for (;;) {
        const int connection = accept(listener, nullptr, nullptr);
        if (connection < 0) {
            _exit(1);
        }
        behaviour(connection); // which stays open
    }
}

} // namespace

StrangeServer::StrangeServer(const Behaviour& behaviour, bool accepts) {
    std::rename(PrivateMariaDb::socket, aside);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s", PrivateMariaDb::socket);
    const auto* place = reinterpret_cast<const sockaddr*>(&address);
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(listener, place, sizeof address) != 0 || listen(listener, accepts ? 5 : 0) != 0) {
        throw std::runtime_error(std::string("strange server: ") + std::strerror(errno));
    }
    child_ = fork();
    if (child_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (accepts) {
            serve(listener, behaviour);
        }
        for (;;) {
            pause();
        }
    }
    if (!accepts) { // the one that fits into the queue
        const int first = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (connect(first, place, sizeof address) != 0) {
            throw std::runtime_error("strange server: its queue cannot be filled");
        }
        close(first);
    }
    close(listener);
}

StrangeServer::~StrangeServer() {
    kill(child_, SIGKILL);
    waitpid(child_, nullptr, 0);
    unlink(PrivateMariaDb::socket);
    std::rename(aside, PrivateMariaDb::socket);
}

void StrangeServer::send(int connection, const std::string& bytes) {
    for (std::size_t sent = 0; sent < bytes.size();) {
        const ssize_t count =
            ::send(connection, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count <= 0) {
            return; // the client has left
        }
        sent += static_cast<std::size_t>(count);
    }
}

} // namespace torva::test

#include "torva/maildb/MysqlProxy.h"

#include "torva/maildb/PrivateMariaDb.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace torva::test {

namespace {

constexpr const char* server_socket = "/run/mysqld/behind-proxy.sock";
constexpr std::size_t end_of_rows_size = 9; // EOF packet that closes a result set
constexpr char com_query = 3;

sockaddr_un address(const char* path) {
    sockaddr_un result{};
    result.sun_family = AF_UNIX;
    std::snprintf(result.sun_path, sizeof result.sun_path, "%s", path);
    return result;
}

void send_all(int fd, const std::string& data) {
    for (std::size_t sent = 0; sent < data.size();) {
        const ssize_t count = send(fd, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
        if (count <= 0) {
            _exit(2);
        }
        sent += static_cast<std::size_t>(count);
    }
}

std::string query_packet(const std::string& query) {
    const std::size_t length = query.size() + 1;
    std::string packet;
    for (const unsigned shift : {0U, 8U, 16U}) {
        packet += static_cast<char>((length >> shift) & 0xffU);
    }
    packet += '\0';
    packet += com_query;
    return packet + query;
}

struct Spoiler {
    std::string packet;
    MysqlProxy::Action action;
    std::string replacement;

    /// Serves one connection. Requests and replies of the tests fit into one read.
    void serve(int client, int server) const {
        bool cut = false;
        char buffer[65536];
        for (;;) {
            pollfd ends[] = {{client, POLLIN, 0}, {server, POLLIN, 0}};
            poll(ends, 2, -1);
            const bool from_client = ends[0].revents != 0;
            const ssize_t count = read(from_client ? client : server, buffer, sizeof buffer);
            if (count <= 0) {
                return;
            }
            std::string data(buffer, static_cast<std::size_t>(count));
            if (from_client && data == packet) {
                if (action == MysqlProxy::Action::hang_up) {
                    return;
                }
                if (action == MysqlProxy::Action::swallow) {
                    continue;
                }
                if (action == MysqlProxy::Action::replace) {
                    data = query_packet(replacement);
                }
                cut = action == MysqlProxy::Action::cut_reply;
            } else if (cut) {
                send_all(client, data.substr(0, data.size() - end_of_rows_size));
                return;
            }
            send_all(from_client ? server : client, data);
        }
    }
};

[[noreturn]] void run(int listener, const Spoiler& spoiler) {
    const sockaddr_un target = address(server_socket);
    for (;;) {
        const int client = accept(listener, nullptr, nullptr);
        const int server = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (client < 0 ||
            connect(server, reinterpret_cast<const sockaddr*>(&target), sizeof target) != 0) {
            _exit(1);
        }
        spoiler.serve(client, server);
        close(client);
        close(server);
    }
}

} // namespace

MysqlProxy::MysqlProxy(const std::string& query, Action action, const std::string& replacement) {
    const sockaddr_un own = address(PrivateMariaDb::socket);
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (std::rename(PrivateMariaDb::socket, server_socket) != 0 ||
        bind(listener, reinterpret_cast<const sockaddr*>(&own), sizeof own) != 0 ||
        listen(listener, 5) != 0) {
        throw std::runtime_error(std::string("proxy: ") + std::strerror(errno));
    }
    child_ = fork();
    if (child_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        run(listener, {query_packet(query), action, replacement});
    }
    close(listener);
}

MysqlProxy::~MysqlProxy() {
    kill(child_, SIGKILL);
    waitpid(child_, nullptr, 0);
    std::rename(server_socket, PrivateMariaDb::socket);
}

} // namespace torva::test

// postfix-queue ADDRESS PORT PHASE: stands in for the panel's mail handler.
//
// Started by spawn(8), which hands over one TCP connection as descriptors 0 to 2. It
// carries every byte between that connection and ADDRESS:PORT, in both directions and
// unchanged; an end of file on one side becomes one on the other, so that either side
// may finish first. For the test it keeps what the client said, in a file of its own
// per connection, /run/mailflow/queue/PHASE.XXXXXX: first the line "PHASE ADDRESS
// PORT", then the bytes, each there before the server sees it.
#include "Complain.h"

#include <array>
#include <cstddef>
#include <cstdlib>
#include <netdb.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/types.h>
#include <sysexits.h>
#include <unistd.h>

using torva::mailflow::complain;

namespace {

const std::string recordDirectory = "/run/mailflow/queue/";
const int noRecord = -1;

/// One direction of the conversation, with what was read and not yet written.
struct Direction {
    int from;
    int to;
    int record; ///< file that gets a copy, or noRecord
    std::array<char, 65536> buffer{};
    std::size_t begin = 0;
    std::size_t end = 0;
    bool ended = false; ///< end of file was seen and passed on

    bool mustRead() const { return begin == end && !ended; }
    bool mustWrite() const { return begin != end; }
};

bool writeWhole(int file, const char* data, std::size_t size) {
    while (size != 0) {
        const ssize_t written = write(file, data, size);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written < 0) {
            return false;
        }
        data += written;
        size -= static_cast<std::size_t>(written);
    }
    return true;
}

bool mayTryAgain() {
    return errno == EAGAIN || errno == EINTR;
}

/// Reads once what FROM has; false, with errno, on a failure.
bool receive(Direction& way) {
    const ssize_t size = recv(way.from, way.buffer.data(), way.buffer.size(), MSG_DONTWAIT);
    if (size < 0) {
        return mayTryAgain();
    }
    way.begin = 0;
    way.end = static_cast<std::size_t>(size);
    if (size == 0) {
        way.ended = true;
        return shutdown(way.to, SHUT_WR) == 0;
    }
    return way.record == noRecord || writeWhole(way.record, way.buffer.data(), way.end);
}

/// Writes once what TO takes; false, with errno, on a failure.
bool transmit(Direction& way) {
    const ssize_t size = send(way.to, way.buffer.data() + way.begin, way.end - way.begin,
                              MSG_DONTWAIT | MSG_NOSIGNAL);
    if (size < 0) {
        return mayTryAgain();
    }
    way.begin += static_cast<std::size_t>(size);
    return true;
}

/// Whether a failure is only a side that left without listening to the end, as the
/// proxy client of smtpd(8) does after its QUIT.
bool sideLeft() {
    return errno == ECONNRESET || errno == EPIPE || errno == ENOTCONN;
}

/// Carries bytes until both sides have ended or one has left; false, with errno, on
/// another failure.
bool relay(int client, int server, int record) {
    std::array<Direction, 2> ways{Direction{client, server, record},
                                  Direction{server, client, noRecord}};
    while (!(ways[0].ended && ways[1].ended)) {
        std::array<pollfd, 4> waits{};
        for (std::size_t i = 0; i < ways.size(); ++i) {
            // A side that nothing is wanted of is left out: poll() would report its
            // hang-up over and over.
            waits[2 * i] = {ways[i].mustRead() ? ways[i].from : -1, POLLIN, 0};
            waits[2 * i + 1] = {ways[i].mustWrite() ? ways[i].to : -1, POLLOUT, 0};
        }
        if (poll(waits.data(), waits.size(), -1) < 0 && errno != EINTR) {
            return false;
        }
        for (std::size_t i = 0; i < ways.size(); ++i) {
            const bool done = (waits[2 * i].revents == 0 || receive(ways[i])) &&
                              (waits[2 * i + 1].revents == 0 || transmit(ways[i]));
            if (!done) {
                return sideLeft();
            }
        }
    }
    return true;
}

/// Connects to a numeric address and port; -1 with errno on a failure.
int connectTo(const char* address, const char* port) {
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(address, port, &hints, &found) != 0) {
        errno = EADDRNOTAVAIL;
        return -1;
    }
    int server = socket(found->ai_family, found->ai_socktype | SOCK_CLOEXEC, found->ai_protocol);
    if (server >= 0 && connect(server, found->ai_addr, found->ai_addrlen) != 0) {
        const int error = errno;
        close(server);
        errno = error;
        server = -1;
    }
    freeaddrinfo(found);
    return server;
}

/// Makes the file for what the client says; -1 with errno on a failure.
int makeRecord(const std::string& phase, const std::string& head) {
    std::string path = recordDirectory + phase + ".XXXXXX";
    const int file = mkstemp(path.data());
    if (file >= 0 && !writeWhole(file, head.data(), head.size())) {
        return -1;
    }
    return file;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::cerr << "usage: postfix-queue ADDRESS PORT PHASE\n";
        return EX_USAGE;
    }
    const std::string address = argv[1];
    const std::string port = argv[2];
    const std::string phase = argv[3];
    const int record = makeRecord(phase, phase + " " + address + " " + port + "\n");
    if (record < 0) {
        return complain(recordDirectory + phase, EX_TEMPFAIL);
    }
    const int server = connectTo(argv[1], argv[2]);
    if (server < 0) {
        return complain("connect to " + address + " port " + port, EX_TEMPFAIL);
    }
    if (!relay(STDIN_FILENO, server, record)) {
        return complain(phase + " relay", EX_TEMPFAIL);
    }
    return EX_OK;
}

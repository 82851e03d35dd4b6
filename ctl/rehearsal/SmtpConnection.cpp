#include "ctl/rehearsal/SmtpConnection.h"

#include "ctl/rehearsal/ServiceFaults.h"
#include "torva/process/SystemCall.h"

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <utility>

namespace torva::ctl::rehearsal {

process::Descriptor openLocalSocket() {
    return process::Descriptor(process::systemCall(
        "socket", [] { return ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0); }));
}

SmtpConnection::SmtpConnection(MailLog& log, process::Descriptor socket, const std::string& address,
                               const Deadline& deadline)
    : log_(log), socket_(std::move(socket)), deadline_(deadline), address_(address) {
    sockaddr_in server{};
    server.sin_family = AF_INET;
    server.sin_port = htons(25);
    if (::inet_pton(AF_INET, address.c_str(), &server.sin_addr) != 1) {
        fail("no address: " + address);
    } else if (::connect(socket_.get(), reinterpret_cast<const sockaddr*>(&server),
                         sizeof(server)) != 0 &&
               errno != EINPROGRESS) {
        fail(std::strerror(errno));
    }
}

void SmtpConnection::send(const std::string& bytes) {
    for (std::size_t done = 0; done < bytes.size() && failure_.empty();) {
        const ssize_t size =
            ::send(socket_.get(), bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (size >= 0) {
            done += static_cast<std::size_t>(size);
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            while (failure_.empty() &&
                   log_.wait(socket_.get(), POLLOUT, deadline_) != Wake::ready) {
                if (deadline_.over()) {
                    fail("no answer in time");
                }
            }
        } else if (errno != EINTR) {
            // The server's last bytes must still be read.
            return;
        }
    }
}

bool SmtpConnection::await(SmtpReply& reply) {
    while (!reader_.hasReply() && failure_.empty()) {
        // The server that cannot start may be another one of the same program, so this one
        // still gets time for its greeting.
        const bool doubtful = !greeted_ && startIsThrottled(log_.lines(), "smtpd");
        const Deadline limit = doubtful ? deadline_.within(std::chrono::seconds(1)) : deadline_;
        const Wake wake = log_.wait(socket_.get(), connected_ ? POLLIN : POLLOUT, limit);
        if (wake == Wake::ready) {
            receive();
        } else if (wake == Wake::late) {
            return fail(doubtful ? "its server cannot start" : "no answer in time");
        }
    }
    if (!reader_.hasReply()) {
        return false;
    }
    reply = reader_.take();
    greeted_ = true;
    return true;
}

bool SmtpConnection::fail(const std::string& text) {
    if (failure_.empty()) {
        failure_ = "port 25 of " + address_ + ": " + text;
    }
    return false;
}

// One step: connects, or reads bytes.
bool SmtpConnection::receive() {
    if (!connected_) {
        int error = 0;
        socklen_t size = sizeof(error);
        ::getsockopt(socket_.get(), SOL_SOCKET, SO_ERROR, &error, &size);
        connected_ = error == 0;
        return connected_ || fail(std::strerror(error));
    }
    std::array<char, 4096> bytes;
    const ssize_t size = ::recv(socket_.get(), bytes.data(), bytes.size(), 0);
    if (size > 0) {
        reader_.feed({bytes.data(), static_cast<std::size_t>(size)});
        return true;
    }
    if (size < 0 && (errno == EINTR || errno == EAGAIN)) {
        return true;
    }
    return fail(size == 0 ? "the server closed the connection" : std::strerror(errno));
}

} // namespace torva::ctl::rehearsal

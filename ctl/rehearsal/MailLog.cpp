#include "ctl/rehearsal/MailLog.h"

#include "torva/process/SystemCall.h"

#include <array>
#include <cstring>
#include <poll.h>
#include <string_view>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

namespace torva::ctl::rehearsal {
namespace {

process::Descriptor bindSocket(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        throw SystemError("bind " + path, ENAMETOOLONG);
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    process::Descriptor socket(process::systemCall(
        "socket", [] { return ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0); }));
    if (::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        throw SystemError("bind " + path);
    }
    if (::chmod(path.c_str(), 0666) != 0) {
        throw SystemError("chmod " + path);
    }
    return socket;
}

} // namespace

MailLog::MailLog(const std::string& path) : socket_(bindSocket(path)) {}

bool MailLog::takeAll() {
    std::array<char, 8192> datagram;
    bool some = false;
    // A program that logs without end must not keep us from checking the deadline.
    for (int count = 0; count < 1000; ++count) {
        const ssize_t size = process::retried(
            [&] { return ::recv(socket_.get(), datagram.data(), datagram.size(), MSG_DONTWAIT); });
        if (size < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            return some;
        }
        if (size < 0) {
            process::throwLastError("recv");
        }
        lines_.push_back(
            parseLogLine(std::string_view(datagram.data(), static_cast<std::size_t>(size))));
        some = true;
    }
    return some;
}

Wake MailLog::wait(int fd, short events, const Deadline& deadline) {
    std::array<pollfd, 2> waits{pollfd{socket_.get(), POLLIN, 0}, pollfd{fd, events, 0}};
    process::systemCall(
        "poll", [&] { return ::poll(waits.data(), waits.size(), deadline.milliseconds()); });
    // Even if only the descriptor is ready: earlier messages must be read.
    const bool logged = takeAll();
    if (waits[1].revents != 0) {
        return Wake::ready;
    }
    return logged ? Wake::logged : Wake::late;
}

} // namespace torva::ctl::rehearsal

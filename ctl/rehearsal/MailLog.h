// The system log of the rehearsal: the socket to which every program of the inner world
// sends its messages. Their format is LogLine.h.
#pragma once

#include "ctl/rehearsal/Deadline.h"
#include "ctl/rehearsal/LogLine.h"
#include "torva/process/Descriptor.h"

#include <string>
#include <vector>

namespace torva::ctl::rehearsal {

/// Why a wait ended.
enum class Wake {
    ready,  ///< the descriptor is ready; all earlier messages have been read
    logged, ///< something was logged
    late    ///< the deadline came first
};

/// Collects the messages. The kernel keeps ten or so; a program that logs more blocks until
/// they are read. So nothing may wait for a program of Postfix except by wait().
class MailLog {
public:
    /// Binds the socket, which anybody may write to. See unix(7).
    ///
    /// \param path  where it appears; nothing may be there
    /// \throws SystemError  "socket", "bind", "chmod", and the path
    explicit MailLog(const std::string& path);

    /// All messages so far, oldest first.
    const std::vector<LogLine>& lines() const { return lines_; }

    /// Waits for a descriptor or a message of the log, whichever comes first.
    ///
    /// \param fd      descriptor; -1: only the log
    /// \param events  POLLIN or POLLOUT
    /// \throws SystemError  "poll", "recv"
    Wake wait(int fd, short events, const Deadline& deadline);

private:
    bool takeAll();

    process::Descriptor socket_;
    std::vector<LogLine> lines_;
};

} // namespace torva::ctl::rehearsal

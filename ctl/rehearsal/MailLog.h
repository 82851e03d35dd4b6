// The system log of the rehearsal: the socket at which every program of the inner world
// leaves its messages. What a message says is LogLine.h.
#pragma once

#include "ctl/rehearsal/Deadline.h"
#include "ctl/rehearsal/LogLine.h"
#include "torva/process/Descriptor.h"

#include <string>
#include <vector>

namespace torva::ctl::rehearsal {

/// Why a wait ended.
enum class Wake {
    ready,  ///< the descriptor is ready; all that was logged before that is taken
    logged, ///< something was logged
    late    ///< the deadline came first
};

/// Collects what is logged. The kernel keeps ten messages or so; who logs more waits
/// until they are read. So nothing may wait for a program of Postfix but with wait().
class MailLog {
public:
    /// Binds the socket, which anybody may write to. See unix(7).
    ///
    /// \param path  where it appears; nothing may be there
    /// \throws SystemError  "socket", "bind", "chmod", and the path
    explicit MailLog(const std::string& path);

    /// All that was logged so far, oldest first.
    const std::vector<LogLine>& lines() const { return lines_; }

    /// Waits for a descriptor or a message of the log, whichever comes first.
    ///
    /// \param fd      descriptor; -1: none, the log alone
    /// \param events  POLLIN or POLLOUT
    /// \throws SystemError  "poll", "recv"
    Wake wait(int fd, short events, const Deadline& deadline);

private:
    bool takeAll();

    process::Descriptor socket_;
    std::vector<LogLine> lines_;
};

} // namespace torva::ctl::rehearsal

// The format in which a child tells its parent why it did not execute its program: records
// of a four-byte tag, a text and one NUL byte, "ET: " type, "EM: " message, "EC: " errno
// value. This is only the format, and its conversion from and to exceptions; the control
// pipe is in torva/process/Launch.h.
// Private to the library: not installed.
#pragma once

#include <cstddef>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

namespace torva::process {

/// A failure of a child before exec.
struct ChildError {
    std::string type;        ///< "SystemError", "std::runtime_error" or "std::exception"
    std::string message;     ///< what() of the exception
    std::optional<int> code; ///< errno value; only for "SystemError"
    int exitStatus;          ///< of the child: 67, 66 or 65
};

/// The exception that is being handled, as the child reports it. Call it in a handler.
ChildError currentError();

/// The records of an error, one element for each write(2), NUL bytes included.
std::vector<std::string> encodeError(const ChildError& error);

/// Writes the records of an error. Failures are ignored: nobody could be told.
///
/// \param fd  the control pipe's write end, not closed; negative: nothing is written
void writeError(int fd, const ChildError& error);

/// Reassembles the records from pieces of any size.
class ErrorReader {
public:
    /// \param childOutput  receives a line "child output: ..." for each record without
    ///                     one of the three tags; must outlive the reader. Output errors
    ///                     are ignored, including that of a reader that is gone
    explicit ErrorReader(std::ostream& childOutput);

    /// Takes the next piece.
    void feed(const char* data, std::size_t size);

    /// Takes the end of file: a rest without a NUL is the last record.
    void finish();

    /// Throws the error that was received; does nothing when no type was.
    ///
    /// \throws SystemError         type "SystemError"; without a code the errno
    ///                             value is the current one
    /// \throws std::runtime_error  type "std::runtime_error"
    /// \throws std::exception      type "std::exception"; the message is lost
    /// \throws std::bad_exception  any other type
    /// An empty message becomes "an error in child process".
    void throwIfFailed() const;

private:
    void interpret(const std::string& record);

    std::ostream& childOutput_;
    std::string partial_; ///< bytes after the last NUL
    std::optional<std::string> type_;
    std::string message_;
    int code_ = 0;
};

} // namespace torva::process

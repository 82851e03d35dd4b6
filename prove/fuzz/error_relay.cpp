// The records by which a child reports its failure. Any bytes give the same outcome
// in whatever pieces they arrive; the error that is written is the one that is read,
// even after output that does not belong to it.
#include "Fuzz.h"
#include "torva/process/ErrorRelay.h"
#include "torva/util/SystemError.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sstream>
#include <stdexcept>
#include <unistd.h>

using namespace torva::fuzz;
using torva::process::ErrorReader;

namespace {

/// What the parent learns, as one text: kind, code and text of the exception.
std::string thrownBy(const ErrorReader& reader) {
    errno = EXDEV;
    try {
        reader.throwIfFailed();
    } catch (const torva::SystemError& error) {
        return "SystemError " + std::to_string(error.code()) + " " + error.what();
    } catch (const std::runtime_error& error) {
        return std::string("std::runtime_error ") + error.what();
    } catch (const std::bad_exception&) {
        return "std::bad_exception";
    } catch (const std::exception&) {
        return "std::exception";
    }
    return "nothing";
}

std::string received(const std::vector<std::string>& pieces) {
    std::ostringstream output;
    ErrorReader reader(output);
    for (const std::string& piece : pieces) {
        reader.feed(piece.data(), piece.size());
    }
    reader.finish();
    return thrownBy(reader) + "|" + output.str();
}

/// The bytes that a child writes when the exception ends it.
template <class Exception>
std::string sent(const Exception& exception) {
    int fds[2];
    require(::pipe2(fds, O_CLOEXEC) == 0, "there is a pipe");
    try {
        throw exception;
    } catch (...) {
        torva::process::writeError(fds[1], torva::process::currentError());
    }
    ::close(fds[1]);
    std::string bytes;
    char piece[1024];
    for (ssize_t count = 0; (count = ::read(fds[0], piece, sizeof(piece))) > 0;) {
        bytes.append(piece, static_cast<std::size_t>(count));
    }
    ::close(fds[0]);
    return bytes;
}

void checkBytes(const std::string& bytes, const std::string& wanted) {
    for (const std::vector<std::string>& pieces : cuttings(bytes)) {
        require(received(pieces) == wanted, "the error that is written is the one that is read");
    }
}

/// \param text  of the operation that fails
void checkErrors(const std::string& text, int code) {
    // The system's text comes twice: the child's message has it already.
    const std::string system = std::string(": ") + std::strerror(code);
    const std::string shown = text.c_str();
    if (code != 0) {
        checkBytes(sent(torva::SystemError(text, code)),
                   "SystemError " + std::to_string(code) + " " +
                       torva::SystemError(text, code).what() + system + "|");
    }
    checkBytes(sent(std::runtime_error(text)),
               "std::runtime_error " + (shown.empty() ? "an error in child process" : shown) + "|");
    checkBytes(sent(std::logic_error(text)), "std::exception|");
    checkBytes(sent(code), "std::runtime_error unknown error|");
}

/// \param stray  output of the child, without NUL, that comes before its error
void checkStray(const std::string& stray) {
    const std::string tag = stray.substr(0, 4);
    if (tag != "ET: " && tag != "EM: " && tag != "EC: ") {
        checkBytes(stray + '\0' + sent(std::runtime_error("m")),
                   "std::runtime_error m|child output: " + stray + "\n");
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = textOf(data, size);
    const std::vector<std::vector<std::string>> ways = cuttings(text);
    const std::string whole = received(ways.front());
    for (const std::vector<std::string>& pieces : ways) {
        require(received(pieces) == whole, "the pieces do not change the outcome");
    }
    int code = 0;
    std::memcpy(&code, text.data(), std::min(size, sizeof(code)));
    checkErrors(text, code);
    checkStray(text.substr(0, text.find('\0')));
    return 0;
}

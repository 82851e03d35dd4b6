#include "torva/process/ErrorRelay.h"

#include "torva/process/SystemCall.h"
#include "torva/util/SigpipeHold.h"
#include "torva/util/SystemError.h"

#include <charconv>
#include <cstdio>
#include <cstring>
#include <exception>
#include <ostream>
#include <stdexcept>
#include <string_view>
#include <unistd.h>

namespace torva::process {
namespace {

constexpr std::string_view typeTag = "ET: ";
constexpr std::string_view messageTag = "EM: ";
constexpr std::string_view codeTag = "EC: ";

// The text up to its first NUL, with the NUL that ends its record. The text after an inner
// NUL would be taken for a record.
std::string terminated(const std::string& text) {
    return std::string(text.c_str(), std::strlen(text.c_str()) + 1);
}

void writeWhole(int fd, const std::string& piece) {
    std::size_t written = 0;
    while (written < piece.size()) {
        const ssize_t count =
            retried([&] { return ::write(fd, piece.data() + written, piece.size() - written); });
        if (count == -1) {
            return;
        }
        written += static_cast<std::size_t>(count);
    }
}

int parseCode(std::string_view text) {
    int code = 0;
    std::from_chars(text.data(), text.data() + text.size(), code);
    return code;
}

} // namespace

ChildError currentError() {
    try {
        throw;
    } catch (const SystemError& error) {
        return {"SystemError", error.what(), error.code(), 67};
    } catch (const std::runtime_error& error) {
        return {"std::runtime_error", error.what(), std::nullopt, 66};
    } catch (const std::exception& error) {
        return {"std::exception", error.what(), std::nullopt, 66};
    } catch (...) {
        return {"std::runtime_error", "unknown error", std::nullopt, 65};
    }
}

std::vector<std::string> encodeError(const ChildError& error) {
    std::vector<std::string> pieces{std::string(typeTag), terminated(error.type),
                                    std::string(messageTag), terminated(error.message)};
    if (error.code) {
        char record[47];
        std::snprintf(record, sizeof(record), "EC: %d", *error.code);
        pieces.push_back(terminated(record));
    }
    return pieces;
}

void writeError(int fd, const ChildError& error) {
    if (fd < 0) {
        return;
    }
    for (const std::string& piece : encodeError(error)) {
        writeWhole(fd, piece);
    }
}

ErrorReader::ErrorReader(std::ostream& childOutput) : childOutput_(childOutput) {}

void ErrorReader::feed(const char* data, std::size_t size) {
    const char* const end = data + size;
    while (const char* nul = static_cast<const char*>(
               std::memchr(data, '\0', static_cast<std::size_t>(end - data)))) {
        partial_.append(data, nul);
        interpret(partial_);
        partial_.clear();
        data = nul + 1;
    }
    partial_.append(data, end);
}

void ErrorReader::finish() {
    if (!partial_.empty()) {
        interpret(partial_);
        partial_.clear();
    }
}

void ErrorReader::interpret(const std::string& record) {
    const std::string_view tag = std::string_view(record).substr(0, typeTag.size());
    const std::string text = record.substr(tag.size());
    if (tag == typeTag) {
        type_ = text;
    } else if (tag == messageTag) {
        message_ = text;
    } else if (tag == codeTag) {
        code_ = parseCode(text);
    } else {
        const SigpipeHold hold; // the reader may be gone
        childOutput_ << "child output: " << record << std::endl;
    }
}

void ErrorReader::throwIfFailed() const {
    if (!type_) {
        return;
    }
    const std::string message = message_.empty() ? "an error in child process" : message_;
    if (*type_ == "SystemError") {
        throw SystemError(message, code_);
    }
    if (*type_ == "std::runtime_error") {
        throw std::runtime_error(message);
    }
    if (*type_ == "std::exception") {
        throw std::exception();
    }
    throw std::bad_exception();
}

} // namespace torva::process

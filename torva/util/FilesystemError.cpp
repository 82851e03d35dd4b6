#include "torva/util/FilesystemError.h"

#include <cstring>
#include <stdexcept>
#include <string>

namespace torva {
namespace {

using boost::filesystem::filesystem_error;

boost::system::error_code systemCode(int code) {
    return {code, boost::system::system_category()};
}

// Some versions of Boost store the bare operation and compose their text in what(). Others
// compose it in the constructor, with more than users should see, and what() returns that.
filesystem_error withPlainText(filesystem_error error, const char* operation, int code) {
    if (std::strcmp(error.std::runtime_error::what(), operation) != 0) {
        std::runtime_error& text = error;
        text = std::runtime_error(std::string(operation) + ": " + std::strerror(code));
    }
    return error;
}

} // namespace

filesystem_error filesystemError(const char* operation, const boost::filesystem::path& path,
                                 int code) {
    return withPlainText(filesystem_error(operation, path, systemCode(code)), operation, code);
}

filesystem_error filesystemError(const char* operation, const boost::filesystem::path& from,
                                 const boost::filesystem::path& to, int code) {
    return withPlainText(filesystem_error(operation, from, to, systemCode(code)), operation, code);
}

} // namespace torva

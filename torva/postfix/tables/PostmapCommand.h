// Builds the command lines of postmap(1) for the operations in this folder.
// Private to the library: not installed.
#pragma once

#include <string>
#include <vector>

namespace torva::mail::postfix {

/// "/usr/sbin/postmap", the options, the table.
inline std::vector<std::string> postmapCommand(std::vector<std::string> options,
                                               const std::string& table) {
    options.insert(options.begin(), "/usr/sbin/postmap");
    options.push_back(table);
    return options;
}

} // namespace torva::mail::postfix

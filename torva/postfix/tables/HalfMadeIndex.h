// Removes the temporary file that a killed or failed creation of an index leaves behind.
// Used for tables here, and for the system's aliases by the application.
// Private to the library: not installed.
#pragma once

#include <string>
#include <utility>

namespace torva::mail::postfix {

/// Removes the file in which Berkeley DB, the library behind the types "hash" and
/// "btree", creates a new index before it renames it: "__db.NAME.db" next to the source
/// file. A full disk or a kill leaves it there. While it exists, every new creation
/// retries for 100 seconds and then fails with "File exists".
///
/// \param source  path of the source file; nobody else may be creating its index
/// Best effort: if the file cannot be removed, the next creation fails and says so.
/// Leaves errno as it was.
void removeHalfMadeIndex(const std::string& source) noexcept;

/// Around a tool that may create an index: removes the file that an earlier, killed one
/// left, and that of this one unless letGo() was called.
class HalfMadeIndexGuard {
public:
    /// \param source  path of the source file
    explicit HalfMadeIndexGuard(std::string source) : source_(std::move(source)) {
        removeHalfMadeIndex(source_);
    }
    ~HalfMadeIndexGuard() {
        if (armed_) {
            removeHalfMadeIndex(source_);
        }
    }
    HalfMadeIndexGuard(const HalfMadeIndexGuard&) = delete;
    HalfMadeIndexGuard& operator=(const HalfMadeIndexGuard&) = delete;

    /// The tool succeeded.
    void letGo() { armed_ = false; }

private:
    const std::string source_;
    bool armed_ = true;
};

} // namespace torva::mail::postfix

// What a killed or failed creation of an index file leaves behind, and its removal.
// Creating tables is CreateTable.h; the system's aliases are the application's.
// Private to the library: not installed.
#pragma once

#include <string>
#include <utility>

namespace torva::mail::postfix {

/// Removes the file under which Berkeley DB, the library of the types "hash" and
/// "btree", makes a new index before it gives it its name: "__db.NAME.db" beside
/// the source file. A full disk or a kill leaves it there, and as long as it is
/// there every new creation tries for 100 seconds and fails with "File exists".
///
/// \param source  path of the source file; nobody else creates its index now
/// Best effort: what cannot be removed the next creation complains about. Leaves
/// errno as it was.
void removeHalfMadeIndex(const std::string& source) noexcept;

/// Around a tool that may make an index: removes what an earlier, killed one left, and
/// what this one leaves unless it is told that all went well.
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

    void letGo() { armed_ = false; }

private:
    const std::string source_;
    bool armed_ = true;
};

} // namespace torva::mail::postfix

// For tests that write where the system itself does: refuses to run them anywhere
// but in the sandbox, where those paths are private copies.
#pragma once

#include "Support.h"

#include "torva/postfix/mastercf/MasterCf.h"
#include "torva/postfix/mastercf/MasterCfWriter.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

namespace torva::mail::postfix::testing {

/// Writes the elements, none of them a service.
inline void writeTo(const std::string& path, const std::vector<std::string>& texts) {
    MasterCfLines lines;
    for (const std::string& text : texts) {
        lines.append(text);
    }
    MasterCfWriter::write(lines, path);
}

/// Each test begins without lock files and without a store of disabled services,
/// but with the directory that the store belongs into.
class SandboxedTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(std::getenv("TORVA_SANDBOX"), nullptr) << "run this by scripts/sandbox";
        std::filesystem::remove_all("/var/lock/files");
        const std::filesystem::path store(MasterCf::disabledPath);
        std::filesystem::create_directories(store.parent_path());
        std::filesystem::remove_all(store);
    }

    const TempDir directory_;
    const std::string path_ = directory_ / "master.cf";
};

} // namespace torva::mail::postfix::testing

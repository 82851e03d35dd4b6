// Locks, traces, scratch files and printed errors leave nothing allocated.
#include "support/HeapCensus.h"
#include "torva/libc/Child.h"
#include "torva/util/AutocleanOFStream.h"
#include "torva/util/FatalError.h"
#include "torva/util/FileLock.h"
#include "torva/util/TempDirectory.h"
#include "torva/util/TmpFile.h"
#include "torva/util/Traceback.h"

#include <functional>
#include <gtest/gtest.h>
#include <sstream>
#include <stdexcept>
#include <string>

using torva::LockMode;
using torva::Traceback;
using torva::test::blocksLeftBy;
using torva::test::inChild;
using torva::test::TempDirectory;

namespace {

class LeakedError : public std::runtime_error, public Traceback {
public:
    LeakedError() : std::runtime_error("traced"), Traceback(0) {}
};

class LeakTest : public testing::Test {
protected:
    void SetUp() override {
        if (TORVA_TEST_ASAN != 0) {
            GTEST_SKIP() << "the sanitizer's allocator keeps no books of this kind";
        }
    }

    const TempDirectory directory_;
    const std::string path_ = directory_ / "a name that is longer than any small string";
};

std::string printedTrace(const Traceback& trace) {
    std::ostringstream text;
    trace.print(text);
    return text.str();
}

} // namespace

TEST_F(LeakTest, ALockThatIsReleasedLeavesNothing) {
    EXPECT_EQ(blocksLeftBy([this] {
                  file_lock* handle = torva::lock(path_, false, LockMode::fail);
                  file_lock_free(handle);
              }),
              0);
}

TEST_F(LeakTest, ALockThatIsRefusedLeavesNothing) {
    file_lock* held = torva::lock(path_, false, LockMode::fail);
    EXPECT_EQ(blocksLeftBy([this] {
                  EXPECT_THROW(torva::lock(path_, false, LockMode::fail), std::runtime_error);
              }),
              0);
    file_lock_free(held);
}

TEST_F(LeakTest, ATraceThatWasPrintedCopiedAndAssignedLeavesNothing) {
    EXPECT_EQ(blocksLeftBy([] {
                  const Traceback original(0);
                  printedTrace(original);
                  Traceback copy(original);
                  printedTrace(copy);
                  copy = original; // and forgets the symbols that it had
                  printedTrace(copy);
              }),
              0);
}

TEST_F(LeakTest, AnErrorThatIsPrintedLeavesNothing) {
    EXPECT_EQ(inChild([] {
                  return blocksLeftBy([] { torva::printFatalError(LeakedError()); }) == 0 ? 0 : 1;
              }).exited,
              0);
}

TEST_F(LeakTest, ScratchFilesLeaveNothing) {
    EXPECT_EQ(blocksLeftBy([this] {
                  torva::TmpFile file(path_);
                  file << "text";
                  file.commit();
                  torva::AutocleanOFStream(file.path()) << "text";
              }),
              0);
}

// The model with its files, with the store of disabled services at its fixed path.
#include "torva/postfix/mastercf/MasterCf.h"

#include "AllocationLimit.h"
#include "SampleMasterCf.h"
#include "Sandboxed.h"
#include "SystemCallLog.h"
#include "torva/util/PostfixError.h"
#include "torva/util/SystemError.h"

#include <boost/filesystem.hpp>
#include <gmock/gmock.h>

#include <sys/stat.h>

namespace torva::mail::postfix::testing {
namespace {

using boost::logic::indeterminate;

const std::string storePath = MasterCf::disabledPath;

MasterCfModule service(const std::string& name, ModuleType type, const std::string& command) {
    MasterCfModule record;
    record.name = name;
    record.type = type;
    record.words = {command};
    return record;
}

ino_t inodeOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
    return status.st_ino;
}

class MasterCfSandboxTest : public SandboxedTest {
protected:
    void load(const std::string& text) {
        fill(path_, text);
        model_.load(true);
    }

    MasterCf model_{path_};
};

TEST_F(MasterCfSandboxTest, StoreHasItsFixedPlace) {
    EXPECT_EQ(storePath, "/var/spool/postfix/torva/master.cf.disabled");
}

TEST_F(MasterCfSandboxTest, TwoLinesOfOneKeyAreWrittenOnceWhereTheFirstStoodWithTheSecondsText) {
    load("a unix - - - - - one\n# c\na unix - - - - - two\n# d");
    EXPECT_FALSE(model_.save(false));
    EXPECT_TRUE(model_.save(true));
    EXPECT_EQ(contentOfFile(path_), "a unix - - - - - two\n# c\n# d\n");
}

TEST_F(MasterCfSandboxTest, SameNameWithDifferentTypesStaysTwoServices) {
    load("smtp inet n - n - - smtpd\nsmtp unix - - n - - smtp");
    model_.putModule(service("smtp", ModuleType::unix, "other"), true);
    EXPECT_TRUE(model_.save(false));
    EXPECT_EQ(contentOfFile(path_), "smtp inet n - n - - smtpd\nsmtp unix - - - - - other\n");
}

TEST_F(MasterCfSandboxTest, PutModuleOfAnExistingServiceReplacesItsTextInPlace) {
    load("# first\na   unix - - - - - one\n  -o x=y\n# last");
    model_.putModule(service("a", ModuleType::unix, "two"), true);
    model_.putModule(service("b", ModuleType::fifo, "three"), true);
    EXPECT_TRUE(model_.save(false));
    EXPECT_EQ(contentOfFile(path_),
              "# first\na unix - - - - - two\n# last\nb fifo - - - - - three\n");
    EXPECT_FALSE(std::filesystem::exists(storePath));
}

TEST_F(MasterCfSandboxTest, LinesThatAreNotTouchedStayByteForByte) {
    const std::string sample = sampleMasterCf;
    load(sample);
    model_.putModule(service("new", ModuleType::unix, "command"), true);
    EXPECT_TRUE(model_.save(false));
    EXPECT_EQ(contentOfFile(path_), sample + "\nnew unix - - - - - command\n");
}

TEST_F(MasterCfSandboxTest, EnableModuleOfAnActiveServiceLetsSaveWriteNothing) {
    load("a unix - - - - - one\n");
    const ino_t before = inodeOf(path_);
    model_.enableModule("a", ModuleType::unix);
    EXPECT_FALSE(model_.save(false));
    EXPECT_EQ(inodeOf(path_), before);
    EXPECT_EQ(contentOfFile(path_), "a unix - - - - - one\n");
    EXPECT_FALSE(std::filesystem::exists("/var/lock/files"));
}

TEST_F(MasterCfSandboxTest, PutModuleOfTheVeryTextLetsSaveWriteNothing) {
    load("a unix - - - - - one\n");
    const ino_t before = inodeOf(path_);
    model_.putModule(service("a", ModuleType::unix, "one"), true);
    EXPECT_FALSE(model_.save(false));
    EXPECT_EQ(inodeOf(path_), before);
}

TEST_F(MasterCfSandboxTest, ForcedSaveWithoutAStoreRewritesMasterCfAndCreatesNoStore) {
    load("a unix - - - - - one\n");
    const ino_t before = inodeOf(path_);
    EXPECT_TRUE(model_.save(true));
    EXPECT_NE(inodeOf(path_), before);
    EXPECT_EQ(contentOfFile(path_), "a unix - - - - - one\n\n");
    EXPECT_FALSE(std::filesystem::exists(storePath));
}

TEST_F(MasterCfSandboxTest, ForcedSaveRewritesTheStoreThatExistsToo) {
    fill(storePath, "# kept\nb unix - - - - - two\n");
    load("a unix - - - - - one\n");
    const ino_t before = inodeOf(storePath);
    EXPECT_TRUE(model_.save(true));
    EXPECT_NE(inodeOf(storePath), before);
    EXPECT_EQ(contentOfFile(storePath), "# kept\nb unix - - - - - two\n\n");
}

TEST_F(MasterCfSandboxTest, DisabledServiceMovesToTheStoreAndBackWithItsText) {
    const std::string text = "a   unix - - - - - one\n# within\n  -o x=y";
    load("# first\n" + text + "\n# last");
    model_.disableModule("a", ModuleType::unix);
    EXPECT_TRUE(model_.save(false));
    EXPECT_EQ(contentOfFile(path_), "# first\n# last\n");
    EXPECT_EQ(contentOfFile(storePath), text + "\n");
    EXPECT_EQ(std::filesystem::status(storePath).permissions(), std::filesystem::perms(0644));

    MasterCf again(path_);
    again.load(false);
    EXPECT_TRUE(again.hasModule("a", ModuleType::unix, false));
    again.enableModule("a", ModuleType::unix);
    EXPECT_TRUE(again.save(false));
    // What comes back is the last line; the empty one was read with the last newline.
    EXPECT_EQ(contentOfFile(path_), "# first\n# last\n\n" + text + "\n");
    EXPECT_EQ(contentOfFile(storePath), "\n");
}

TEST_F(MasterCfSandboxTest, ChangeOfTheStoreAloneIsWrittenAndTheAnswerIsNo) {
    load("a unix - - - - - one\n");
    const ino_t before = inodeOf(path_);
    model_.putModule(service("b", ModuleType::unix, "two"), false);
    EXPECT_FALSE(model_.save(false));
    EXPECT_EQ(inodeOf(path_), before);
    EXPECT_EQ(contentOfFile(storePath), "b unix - - - - - two\n");
    EXPECT_FALSE(model_.disabledChanged());
}

TEST_F(MasterCfSandboxTest, SaveClearsTheFlagsSoASecondOneWritesNothing) {
    load("a unix - - - - - one\n");
    model_.disableModule("a", ModuleType::unix);
    EXPECT_TRUE(model_.save(false));
    const ino_t active = inodeOf(path_);
    const ino_t store = inodeOf(storePath);
    EXPECT_FALSE(model_.save(false));
    EXPECT_EQ(inodeOf(path_), active);
    EXPECT_EQ(inodeOf(storePath), store);
}

TEST_F(MasterCfSandboxTest, ServiceInBothIsTakenFromMasterCfFirst) {
    fill(storePath, "a unix - - - - - stored\n");
    load("a unix - - - - - active\n");
    EXPECT_EQ(model_.getModule("a", ModuleType::unix, indeterminate).text,
              "a unix - - - - - active");
    EXPECT_EQ(model_.getModule("a", ModuleType::unix, false).text, "a unix - - - - - stored");
    EXPECT_EQ(model_.getModule("a", ModuleType::unix, true).text, "a unix - - - - - active");
    // It is active: nothing to bring back, and the stored one stays.
    model_.enableModule("a", ModuleType::unix);
    EXPECT_FALSE(model_.disabledChanged());
    EXPECT_TRUE(model_.hasModule("a", ModuleType::unix, false));
}

TEST_F(MasterCfSandboxTest, DisablingReplacesTheTextThatTheStoreHolds) {
    fill(storePath, "a unix - - - - - stored\n# c");
    load("a unix - - - - - active\n");
    model_.disableModule("a", ModuleType::unix);
    EXPECT_TRUE(model_.save(false));
    EXPECT_EQ(contentOfFile(storePath), "a unix - - - - - active\n# c\n");
}

TEST_F(MasterCfSandboxTest, PuttingAnActiveServiceTakesItFromTheStore) {
    fill(storePath, "# c\na unix - - - - - stored\n");
    load("b unix - - - - - two");
    model_.putModule(service("a", ModuleType::unix, "new"), true);
    EXPECT_TRUE(model_.save(false));
    EXPECT_EQ(contentOfFile(path_), "b unix - - - - - two\na unix - - - - - new\n");
    EXPECT_EQ(contentOfFile(storePath), "# c\n\n");
}

TEST_F(MasterCfSandboxTest, LoadingAgainReadsTheStoreAgain) {
    load("# c");
    EXPECT_FALSE(model_.hasModule("a", ModuleType::unix, indeterminate));
    fill(storePath, "a unix - - - - - stored\n");
    model_.load(true);
    EXPECT_TRUE(model_.hasModule("a", ModuleType::unix, false));
}

TEST_F(MasterCfSandboxTest, LoadingAgainWithoutTheFileKeepsTheStore) {
    fill(storePath, "a unix - - - - - stored\n");
    load("# c");
    std::filesystem::remove(storePath);
    model_.load(true);
    EXPECT_TRUE(model_.hasModule("a", ModuleType::unix, false));
}

TEST_F(MasterCfSandboxTest, FailureOnTheStoreLeavesMasterCfReadAndTheFlagsUp) {
    fill(storePath, "a unix - - - - - stored\n");
    load("b unix - - - - - two");
    model_.removeModule("b", ModuleType::unix);
    fill(path_, "d unix - - - - - four");
    fill(storePath, "BROKEN");
    EXPECT_EQ(messageOf<PostfixConfigurationError>([&] { model_.load(true); }),
              "unable to parse " + storePath);
    EXPECT_TRUE(model_.hasModule("d", ModuleType::unix, true));
    EXPECT_TRUE(model_.hasModule("a", ModuleType::unix, false));
    EXPECT_TRUE(model_.activeChanged());
    EXPECT_FALSE(model_.disabledChanged());
}

TEST_F(MasterCfSandboxTest, FailureOnTheStoreInTheFirstLoadLeavesMasterCfLoaded) {
    fill(path_, "a unix - - - - - one");
    fill(storePath, "BROKEN");
    EXPECT_THROW(model_.load(false), PostfixConfigurationError);
    EXPECT_TRUE(model_.hasModule("a", ModuleType::unix, true));
    EXPECT_NO_THROW(model_.load(false));
}

TEST_F(MasterCfSandboxTest, StoreThatIsAFifoIsRefusedAndDoesNotHang) {
    fill(path_, "# c");
    ASSERT_EQ(::mkfifo(storePath.c_str(), 0600), 0);
    EXPECT_EQ(messageOf<PostfixConfigurationError>([&] { model_.load(false); }),
              "unable to open " + storePath);
}

TEST_F(MasterCfSandboxTest, StoreThatCannotBeLookedAtIsNotTakenForNone) {
    fill(path_, "# c");
    std::filesystem::create_symlink(storePath, storePath);
    EXPECT_EQ(messageOf<PostfixConfigurationError>([&] { model_.load(false); }),
              "unable to open " + storePath);
}

TEST_F(MasterCfSandboxTest, EmptiedStoreIsWrittenWithoutAByteAndRefusedByTheNextLoad) {
    load("# c");
    model_.putModule(service("a", ModuleType::unix, "one"), false);
    model_.removeModule("a", ModuleType::unix);
    EXPECT_FALSE(model_.save(false));
    EXPECT_EQ(contentOfFile(storePath), "");
    EXPECT_EQ(messageOf<PostfixConfigurationError>([&] { model_.load(true); }),
              "unable to open " + storePath);
}

TEST_F(MasterCfSandboxTest, MemoryThatRunsOutWithTheFirstDisabledServiceLeavesNoStoreBehind) {
    load("a unix - - - - - one\n");
    const auto noStore = [&] {
        EXPECT_FALSE(model_.activeChanged());
        EXPECT_FALSE(model_.disabledChanged());
        EXPECT_TRUE(model_.hasModule("a", ModuleType::unix, true));
        model_.save(true);
        EXPECT_FALSE(std::filesystem::exists(storePath));
    };
    EXPECT_GT(failEachAllocation([&] { model_.disableModule("a", ModuleType::unix); }, noStore), 0);
    EXPECT_TRUE(model_.hasModule("a", ModuleType::unix, false));
}

TEST_F(MasterCfSandboxTest, HundredThousandServicesComeBackByteForByte) {
    std::string text;
    for (int i = 0; i < 100000; ++i) {
        const std::string number = std::to_string(i);
        text += "# service " + number + "\ns" + number +
                " unix  -  n  n  -  -  smtpd\n  -o x=" + number + "\n";
    }
    load(text);
    model_.disableModule("s99999", ModuleType::unix);
    model_.enableModule("s99999", ModuleType::unix);
    EXPECT_TRUE(model_.save(true));
    const std::string last = "s99999 unix  -  n  n  -  -  smtpd\n  -o x=99999\n";
    text.replace(text.rfind(last), last.size(), "\n" + last);
    EXPECT_EQ(contentOfFile(path_) == text, true);
}

} // namespace
} // namespace torva::mail::postfix::testing

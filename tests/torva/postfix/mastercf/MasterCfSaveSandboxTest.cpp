// Saving master.cf and its store together: what must be ready before the first of
// them is replaced, and what somebody else has done to them since they were read.
#include "torva/postfix/mastercf/MasterCf.h"

#include "Sandboxed.h"
#include "SystemCallLog.h"
#include "torva/util/FileLock.h"
#include "torva/util/PostfixError.h"
#include "torva/util/SystemError.h"

#include <boost/filesystem.hpp>
#include <gmock/gmock.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace torva::mail::postfix::testing {
namespace {

using ::testing::ElementsAre;

const std::string savedStorePath = MasterCf::disabledPath;
const std::string storeDirectory = std::filesystem::path(savedStorePath).parent_path();

MasterCfModule service(const std::string& name, const std::string& command) {
    MasterCfModule record;
    record.name = name;
    record.type = ModuleType::unix;
    record.words = {command};
    return record;
}

class MasterCfSaveSandboxTest : public SandboxedTest {
protected:
    void load(const std::string& text) {
        fill(path_, text);
        model_.load(true);
    }

    /// Names in the directory of the store.
    std::vector<std::string> storeFiles() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(storeDirectory)) {
            names.push_back(entry.path().filename());
        }
        return names;
    }

    std::string refusalOfSave() {
        return messageOf<PostfixConfigurationError>([&] { model_.save(false); });
    }

    const std::string one_ = "a unix - - - - - one\n";
    MasterCf model_{path_};
};

// ---- failures

TEST_F(MasterCfSaveSandboxTest, FailedSaveLeavesTheFileAndTheFlagsForAnotherTry) {
    const std::string old = "a unix - - - - - one\n";
    load(old);
    model_.disableModule("a", ModuleType::unix);
    {
        SystemCallLog log;
        log.fail("rename", EIO);
        EXPECT_THROW(model_.save(false), boost::filesystem::filesystem_error);
    }
    EXPECT_EQ(contentOfFile(path_), old);
    EXPECT_EQ(entriesOf(directory_.path()), 1U);
    EXPECT_FALSE(std::filesystem::exists(savedStorePath));
    EXPECT_TRUE(model_.activeChanged());
    EXPECT_TRUE(model_.disabledChanged());
    EXPECT_TRUE(model_.save(false));
    EXPECT_EQ(contentOfFile(path_), "\n");
    EXPECT_EQ(contentOfFile(savedStorePath), "a unix - - - - - one\n");
}

TEST_F(MasterCfSaveSandboxTest, MissingDirectoryOfTheStoreLeavesMasterCfAndBothFlags) {
    load(one_);
    std::filesystem::remove_all(storeDirectory);
    model_.disableModule("a", ModuleType::unix);
    EXPECT_EQ(messageOf<torva::SystemError>([&] { model_.save(false); }),
              "mkstemp() failed: : No such file or directory");
    EXPECT_EQ(contentOfFile(path_), one_);
    EXPECT_EQ(entriesOf(directory_.path()), 1U);
    EXPECT_TRUE(model_.activeChanged());
    EXPECT_TRUE(model_.disabledChanged());
    std::filesystem::create_directory(storeDirectory);
    EXPECT_TRUE(model_.save(false));
    EXPECT_EQ(contentOfFile(path_), "\n");
    EXPECT_EQ(contentOfFile(savedStorePath), one_);
}

TEST_F(MasterCfSaveSandboxTest, FullDiskUnderTheStoreLeavesMasterCfAndTheStore) {
    if (::mount("tmpfs", storeDirectory.c_str(), "tmpfs", 0, "size=64k") != 0) {
        GTEST_SKIP() << "no file system to fill up: mount: " << std::strerror(errno);
    }
    const std::string text = "a unix - - - - - " + std::string(100000, 'x') + "\n";
    fill(savedStorePath, "# old\n");
    load(text);
    model_.disableModule("a", ModuleType::unix);
    const std::string refusal = messageOf<torva::SystemError>([&] { model_.save(false); });
    const std::string store = contentOfFile(savedStorePath);
    const std::vector<std::string> names = storeFiles();
    ASSERT_EQ(::umount(storeDirectory.c_str()), 0);
    EXPECT_EQ(refusal, "write: No space left on device");
    EXPECT_EQ(contentOfFile(path_), text);
    EXPECT_EQ(store, "# old\n");
    EXPECT_THAT(names, ElementsAre("master.cf.disabled"));
}

TEST_F(MasterCfSaveSandboxTest, MasterCfThatCannotBeWrittenLeavesTheStore) {
    fill(savedStorePath, "# old\n");
    load(one_);
    model_.disableModule("a", ModuleType::unix);
    SystemCallLog log;
    log.before("fchmod master.cf.disabled.XXXXXX", [&] { log.fail("fchmod master.cf.X", EPERM); });
    EXPECT_THROW(model_.save(false), boost::filesystem::filesystem_error);
    EXPECT_EQ(contentOfFile(path_), one_);
    EXPECT_EQ(contentOfFile(savedStorePath), "# old\n");
    EXPECT_THAT(storeFiles(), ElementsAre("master.cf.disabled"));
    EXPECT_EQ(entriesOf(directory_.path()), 1U);
}

TEST_F(MasterCfSaveSandboxTest, OnlyTheTwoRenamesAreLeftWhenMasterCfIsReplaced) {
    load(one_);
    model_.disableModule("a", ModuleType::unix);
    SystemCallLog log;
    bool seen = false;
    log.before("rename master.cf.XXXXXX master.cf", [&] {
        if (std::exchange(seen, true)) {
            return;
        }
        const std::vector<std::string> names = storeFiles();
        ASSERT_EQ(names.size(), 1U);
        EXPECT_EQ(contentOfFile(storeDirectory + "/" + names[0]), one_);
        struct stat status {};
        EXPECT_EQ(::stat((storeDirectory + "/" + names[0]).c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777, 0644U);
        EXPECT_THROW(FileLock(path_, LockMode::fail), std::runtime_error);
        EXPECT_THROW(FileLock(savedStorePath, LockMode::fail), std::runtime_error);
    });
    EXPECT_TRUE(model_.save(false));
    EXPECT_TRUE(seen);
    std::vector<std::string> steps;
    for (const std::string& call : log.calls()) {
        if (call.rfind("flock ", 0) != 0) {
            steps.push_back(call);
        }
    }
    EXPECT_THAT(steps, ElementsAre("fchmod master.cf.disabled.XXXXXX 0644", "fsync file",
                                   "fchmod master.cf.XXXXXX 0644", "fsync file",
                                   "rename master.cf.XXXXXX master.cf", "fsync directory",
                                   "rename master.cf.disabled.XXXXXX master.cf.disabled",
                                   "fsync directory"));
    EXPECT_EQ(contentOfFile(savedStorePath), one_);
    EXPECT_NO_THROW(FileLock(path_, LockMode::fail));
    EXPECT_NO_THROW(FileLock(savedStorePath, LockMode::fail));
}

TEST_F(MasterCfSaveSandboxTest, FailedRenameOfTheStoreLeavesItsFlagAloneUp) {
    load(one_);
    model_.disableModule("a", ModuleType::unix);
    {
        SystemCallLog log;
        log.fail("rename master.cf.disabled", EIO);
        EXPECT_THROW(model_.save(false), boost::filesystem::filesystem_error);
    }
    EXPECT_EQ(contentOfFile(path_), "\n");
    EXPECT_FALSE(std::filesystem::exists(savedStorePath));
    EXPECT_THAT(storeFiles(), ElementsAre());
    EXPECT_FALSE(model_.activeChanged());
    EXPECT_TRUE(model_.disabledChanged());
    EXPECT_FALSE(model_.save(false));
    EXPECT_EQ(contentOfFile(savedStorePath), one_);
}

// ---- changes by others

TEST_F(MasterCfSaveSandboxTest, MasterCfThatSomebodyElseChangedIsNotOverwritten) {
    fill(savedStorePath, "# store\n");
    load(one_);
    model_.disableModule("a", ModuleType::unix);
    const std::string theirs = one_ + "b unix - - - - - two\n";
    fill(path_, theirs);
    EXPECT_EQ(refusalOfSave(), "master.cf was changed by someone else");
    EXPECT_EQ(contentOfFile(path_), theirs);
    EXPECT_EQ(contentOfFile(savedStorePath), "# store\n");
    EXPECT_EQ(entriesOf(directory_.path()), 1U);
    EXPECT_THAT(storeFiles(), ElementsAre("master.cf.disabled"));
    EXPECT_TRUE(model_.activeChanged());
    EXPECT_TRUE(model_.disabledChanged());
    EXPECT_NO_THROW(FileLock(path_, LockMode::fail));
    // Reading again accepts their change.
    model_.load(true);
    model_.disableModule("a", ModuleType::unix);
    EXPECT_TRUE(model_.save(false));
    EXPECT_EQ(contentOfFile(path_), "b unix - - - - - two\n\n");
}

TEST_F(MasterCfSaveSandboxTest, MasterCfThatSomebodyElseRemovedIsNotMadeAnew) {
    load(one_);
    model_.removeModule("a", ModuleType::unix);
    std::filesystem::remove(path_);
    EXPECT_EQ(refusalOfSave(), "master.cf was changed by someone else");
    EXPECT_FALSE(std::filesystem::exists(path_));
    ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
    EXPECT_EQ(refusalOfSave(), "master.cf was changed by someone else");
}

TEST_F(MasterCfSaveSandboxTest, StoreThatSomebodyElseChangedIsNotOverwrittenNorIsMasterCf) {
    for (const bool stood : {true, false}) {
        std::filesystem::remove(savedStorePath);
        if (stood) {
            fill(savedStorePath, "# store\n");
        }
        MasterCf model(path_);
        fill(path_, one_);
        model.load(false);
        model.disableModule("a", ModuleType::unix);
        fill(savedStorePath, "b unix - - - - - two\n");
        EXPECT_EQ(messageOf<PostfixConfigurationError>([&] { model.save(false); }),
                  "master.cf.disabled was changed by someone else");
        EXPECT_EQ(contentOfFile(savedStorePath), "b unix - - - - - two\n");
        EXPECT_EQ(contentOfFile(path_), one_);
    }
}

TEST_F(MasterCfSaveSandboxTest, StoreThatSomebodyElseRemovedIsAChangeToo) {
    fill(savedStorePath, "# store\n");
    load(one_);
    model_.disableModule("a", ModuleType::unix);
    std::filesystem::remove(savedStorePath);
    EXPECT_EQ(refusalOfSave(), "master.cf.disabled was changed by someone else");
    EXPECT_EQ(contentOfFile(path_), one_);
}

TEST_F(MasterCfSaveSandboxTest, StoreThatWasGoneWhenAllWasLoadedAgainIsNoChange) {
    fill(savedStorePath, "# store\n");
    load(one_);
    std::filesystem::remove(savedStorePath);
    model_.load(true);
    model_.disableModule("a", ModuleType::unix);
    EXPECT_TRUE(model_.save(false));
    EXPECT_THAT(contentOfFile(savedStorePath), ::testing::HasSubstr("a unix"));
}

TEST_F(MasterCfSaveSandboxTest, ChangeToAFileThatIsNotWrittenIsNotAskedFor) {
    fill(savedStorePath, "# store\n");
    load(one_);
    model_.putModule(service("b", "two"), true);
    fill(savedStorePath, "# another\n");
    EXPECT_TRUE(model_.save(false));
    fill(path_, "# another\n");
    model_.putModule(service("c", "three"), false);
    EXPECT_EQ(refusalOfSave(), "master.cf.disabled was changed by someone else");
    fill(savedStorePath, "# store\n");
    EXPECT_FALSE(model_.save(false));
    EXPECT_EQ(contentOfFile(path_), "# another\n");
}

TEST_F(MasterCfSaveSandboxTest, OwnWriteIsNobodyElsesChange) {
    load(one_);
    model_.disableModule("a", ModuleType::unix);
    EXPECT_TRUE(model_.save(false));
    model_.enableModule("a", ModuleType::unix);
    EXPECT_TRUE(model_.save(false)); // the store is a single line feed now
    model_.putModule(service("a", "two"), false);
    EXPECT_TRUE(model_.save(false));
    model_.removeModule("a", ModuleType::unix);
    EXPECT_FALSE(model_.save(false));
    model_.putModule(service("a", "two"), false);
    EXPECT_FALSE(model_.save(false));
    EXPECT_EQ(contentOfFile(savedStorePath), "a unix - - - - - two\n");
}

TEST_F(MasterCfSaveSandboxTest, EmptyStoreOfOurOwnIsNobodyElsesChange) {
    load("# c\n");
    model_.putModule(service("a", "one"), false);
    model_.removeModule("a", ModuleType::unix);
    EXPECT_FALSE(model_.save(false));
    EXPECT_EQ(contentOfFile(savedStorePath), "");
    model_.putModule(service("a", "one"), false);
    EXPECT_FALSE(model_.save(false));
    EXPECT_EQ(contentOfFile(savedStorePath), one_);
}

TEST_F(MasterCfSaveSandboxTest, NewTimesModeOrOwnerAreNoChange) {
    load(one_);
    model_.putModule(service("b", "two"), true);
    const timespec old[2] = {{1, 0}, {1, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path_.c_str(), old, 0), 0);
    ASSERT_EQ(::chmod(path_.c_str(), 0600), 0);
    EXPECT_TRUE(model_.save(false));
}

TEST_F(MasterCfSaveSandboxTest, ForcedSaveWritesWhatItHasOverTheChangesOfOthers) {
    fill(savedStorePath, "# store\n");
    load("# c\n");
    fill(path_, "# theirs\n");
    fill(savedStorePath, "# theirs\n");
    EXPECT_TRUE(model_.save(true));
    EXPECT_EQ(contentOfFile(path_), "# c\n\n");
    EXPECT_EQ(contentOfFile(savedStorePath), "# store\n\n");
    // From now on, the file must have what it wrote.
    model_.putModule(service("a", "one"), true);
    EXPECT_TRUE(model_.save(false));
}

TEST_F(MasterCfSaveSandboxTest, ComparisonIsMadeUnderTheLock) {
    load(one_);
    model_.putModule(service("b", "two"), true);
    SystemCallLog log;
    // As another program that writes while we wait for the lock.
    log.before("flock", [&] { fill(path_, "# theirs\n"); });
    EXPECT_EQ(refusalOfSave(), "master.cf was changed by someone else");
    EXPECT_EQ(contentOfFile(path_), "# theirs\n");
}

// ---- a store that somebody else may have planted

class PlantedStoreSandboxTest : public MasterCfSaveSandboxTest {
protected:
    void SetUp() override {
        MasterCfSaveSandboxTest::SetUp();
        fill(path_, "# c");
        fill(savedStorePath, one_);
        ASSERT_EQ(::chown(storeDirectory.c_str(), 65534, 65534), 0);
    }
    void TearDown() override { ASSERT_EQ(::chown(storeDirectory.c_str(), 0, 0), 0); }

    std::string load() {
        MasterCf model(path_);
        return messageOf<PostfixConfigurationError>([&] { model.load(false); });
    }

    const std::string refused_ = "unable to open " + savedStorePath;
};

TEST_F(PlantedStoreSandboxTest, OwnStoreIsReadInADirectoryOfSomebodyElse) {
    EXPECT_EQ(load(), "nothing thrown");
}

TEST_F(PlantedStoreSandboxTest, LinkIsNotFollowed) {
    std::filesystem::remove(savedStorePath);
    fill(directory_ / "elsewhere", one_);
    std::filesystem::create_symlink(directory_ / "elsewhere", savedStorePath);
    EXPECT_EQ(load(), refused_);
    ASSERT_EQ(::chown(storeDirectory.c_str(), 0, 0), 0);
    EXPECT_EQ(load(), "nothing thrown"); // an administrator's own link
}

TEST_F(PlantedStoreSandboxTest, FileOfAnotherAccountIsNotRead) {
    ASSERT_EQ(::chown(savedStorePath.c_str(), 65534, 0), 0);
    EXPECT_EQ(load(), refused_);
}

TEST_F(PlantedStoreSandboxTest, FileThatAnotherAccountMayWriteIsNotRead) {
    for (const mode_t mode : {0664U, 0646U}) {
        ASSERT_EQ(::chmod(savedStorePath.c_str(), mode), 0);
        EXPECT_EQ(load(), refused_);
    }
}

TEST_F(PlantedStoreSandboxTest, SecondNameOfAnotherFileIsNotRead) {
    std::filesystem::create_hard_link(savedStorePath, storeDirectory + "/other");
    EXPECT_EQ(load(), refused_);
    std::filesystem::remove(storeDirectory + "/other");
}

TEST_F(PlantedStoreSandboxTest, FifoIsRefusedAndDoesNotHang) {
    std::filesystem::remove(savedStorePath);
    ASSERT_EQ(::mkfifo(savedStorePath.c_str(), 0600), 0);
    EXPECT_EQ(load(), refused_);
}

} // namespace
} // namespace torva::mail::postfix::testing

// The model in memory, with a master.cf of the test. What is written to disk is
// MasterCfSandboxTest.cpp.
#include "torva/postfix/mastercf/MasterCf.h"

#include "AllocationLimit.h"
#include "Support.h"
#include "torva/util/PostfixError.h"

#include <gmock/gmock.h>

#include <functional>

namespace torva::mail::postfix::testing {
namespace {

using boost::logic::indeterminate;

constexpr const char* notLoaded = "modules configuration isn't loaded yet";

MasterCfModule commandService(const std::string& name, const std::string& command = "command") {
    MasterCfModule record;
    record.name = name;
    record.type = ModuleType::unix;
    record.words = {command};
    return record;
}

class MasterCfTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (std::filesystem::exists(MasterCf::disabledPath)) {
            GTEST_SKIP()
                << "this machine has a store of disabled services, which load() would read";
        }
        fill(path_, "first   unix  -  -  -  -  -  one\n# c\nsecond unix - - - - - two\n");
        model_.load(false);
    }

    bool has(const std::string& name, boost::logic::tribool where) const {
        return model_.hasModule(name, ModuleType::unix, where);
    }
    std::string text(const std::string& name, boost::logic::tribool where = indeterminate) const {
        return model_.getModule(name, ModuleType::unix, where).text;
    }
    /// Which flags are up: "a" that of master.cf, "d" that of the store.
    std::string flags() const {
        return std::string(model_.activeChanged() ? "a" : "") +
               (model_.disabledChanged() ? "d" : "");
    }
    void reload() { model_.load(true); }

    const TempDir directory_;
    const std::string path_ = directory_ / "master.cf";
    MasterCf model_{path_};
};

TEST_F(MasterCfTest, KeepsItsPath) {
    EXPECT_EQ(model_.path(), path_);
}

TEST_F(MasterCfTest, EveryOperationBeforeLoadIsRefused) {
    MasterCf model(path_);
    const std::vector<std::function<void()>> operations = {
        [&] { model.hasModule("first", ModuleType::unix, indeterminate); },
        [&] { model.getModule("first", ModuleType::unix, indeterminate); },
        [&] { model.putModule(commandService("first"), true); },
        [&] { model.putModule(commandService("first"), false); },
        [&] { model.enableModule("first", ModuleType::unix); },
        [&] { model.disableModule("first", ModuleType::unix); },
        [&] { model.removeModule("first", ModuleType::unix); },
        [&] { model.save(false); },
        [&] { model.save(true); },
    };
    for (const auto& operation : operations) {
        EXPECT_EQ(messageOf<std::logic_error>(operation), notLoaded);
    }
    EXPECT_FALSE(model.activeChanged());
    EXPECT_FALSE(model.disabledChanged());
}

TEST_F(MasterCfTest, AFailedFirstLoadLeavesItNotLoaded) {
    fill(path_, "BROKEN");
    MasterCf model(path_);
    EXPECT_EQ(messageOf<PostfixConfigurationError>([&] { model.load(false); }),
              "unable to parse " + path_);
    EXPECT_EQ(messageOf<std::logic_error>([&] { model.save(true); }), notLoaded);
}

TEST_F(MasterCfTest, LoadReadsOnceUnlessToldToReadAgain) {
    fill(path_, "third unix - - - - - three\n");
    model_.load(false);
    EXPECT_TRUE(has("first", true));
    EXPECT_FALSE(has("third", true));
    model_.load(true);
    EXPECT_FALSE(has("first", true));
    EXPECT_TRUE(has("third", true));
}

TEST_F(MasterCfTest, LoadingAgainForgetsChanges) {
    model_.putModule(commandService("new"), true);
    model_.disableModule("first", ModuleType::unix);
    EXPECT_EQ(flags(), "ad");
    model_.load(false);
    EXPECT_EQ(flags(), "ad");
    model_.load(true);
    EXPECT_EQ(flags(), "");
    EXPECT_FALSE(has("new", true));
    EXPECT_TRUE(has("first", true));
}

TEST_F(MasterCfTest, LoadingAgainWithoutAFileOfTheStoreKeepsTheStoreInMemory) {
    model_.disableModule("second", ModuleType::unix);
    model_.load(true);
    EXPECT_TRUE(has("second", true));
    EXPECT_TRUE(has("second", false));
}

TEST_F(MasterCfTest, AFailedLoadOfMasterCfLeavesAllAsItWas) {
    model_.disableModule("first", ModuleType::unix);
    fill(path_, "BROKEN");
    EXPECT_EQ(messageOf<PostfixConfigurationError>([&] { model_.load(true); }),
              "unable to parse " + path_);
    EXPECT_EQ(flags(), "ad");
    EXPECT_TRUE(has("second", true));
    EXPECT_TRUE(has("first", false));
    std::filesystem::remove(path_);
    EXPECT_EQ(messageOf<PostfixConfigurationError>([&] { model_.load(true); }),
              "unable to open " + path_);
    EXPECT_TRUE(has("second", true));
}

TEST_F(MasterCfTest, HasModuleLooksWhereItIsTold) {
    model_.disableModule("second", ModuleType::unix);
    EXPECT_TRUE(has("first", true));
    EXPECT_FALSE(has("first", false));
    EXPECT_TRUE(has("first", indeterminate));
    EXPECT_FALSE(has("second", true));
    EXPECT_TRUE(has("second", false));
    EXPECT_TRUE(has("second", indeterminate));
    EXPECT_FALSE(has("third", indeterminate));
    EXPECT_FALSE(model_.hasModule("first", ModuleType::inet, indeterminate));
}

TEST_F(MasterCfTest, WithoutAStoreNothingIsInTheStore) {
    EXPECT_FALSE(has("first", false));
    EXPECT_THROW(model_.getModule("first", ModuleType::unix, false), std::out_of_range);
}

TEST_F(MasterCfTest, GetModuleAnswersRecordAndTextFromWhereItIsTold) {
    model_.disableModule("second", ModuleType::unix);
    const MasterCfEntry first = model_.getModule("first", ModuleType::unix, true);
    EXPECT_EQ(describe(first.record), "first/unix - - - -1 -1 [one]");
    EXPECT_EQ(first.text, "first   unix  -  -  -  -  -  one");
    EXPECT_EQ(text("first"), first.text);
    EXPECT_EQ(text("second", false), "second unix - - - - - two");
    EXPECT_EQ(text("second"), "second unix - - - - - two");
}

TEST_F(MasterCfTest, GetModuleOfAnUnknownServiceNamesIt) {
    model_.disableModule("second", ModuleType::unix);
    const auto refusal = [&](const std::string& name, ModuleType type,
                             boost::logic::tribool where) {
        return messageOf<std::out_of_range>([&] { model_.getModule(name, type, where); });
    };
    EXPECT_EQ(refusal("third", ModuleType::unix, indeterminate), "no such module third");
    EXPECT_EQ(refusal("first", ModuleType::unix, false), "no such module first");
    EXPECT_EQ(refusal("second", ModuleType::unix, true), "no such module second");
    EXPECT_EQ(refusal("first", ModuleType::inet, indeterminate), "no such module first");
}

TEST_F(MasterCfTest, SameNameWithDifferentTypesAreTwoServices) {
    MasterCfModule inet = commandService("first", "other");
    inet.type = ModuleType::inet;
    model_.putModule(inet, true);
    EXPECT_EQ(text("first"), "first   unix  -  -  -  -  -  one");
    EXPECT_EQ(model_.getModule("first", ModuleType::inet, true).text, "first inet - - - - - other");
}

TEST_F(MasterCfTest, PutModuleOfANewServiceIsAChangeWhereItGoes) {
    model_.putModule(commandService("new"), true);
    EXPECT_EQ(flags(), "a");
    EXPECT_EQ(text("new", true), "new unix - - - - - command");
    reload();
    model_.putModule(commandService("newer"), false);
    EXPECT_EQ(flags(), "d");
    EXPECT_EQ(text("newer", false), "newer unix - - - - - command");
}

TEST_F(MasterCfTest, PutModuleOfAnotherTextIsAChange) {
    model_.putModule(commandService("second", "other"), true);
    EXPECT_EQ(flags(), "a");
    EXPECT_EQ(text("second"), "second unix - - - - - other");
}

TEST_F(MasterCfTest, PutModuleOfTheVeryTextIsNoChangeInEitherStore) {
    model_.putModule(commandService("second", "two"), true);
    EXPECT_EQ(flags(), "");
    model_.putModule(commandService("stored"), false);
    EXPECT_EQ(flags(), "d");
    reload(); // the flags fall, the store in memory stays
    model_.putModule(commandService("stored"), false);
    EXPECT_EQ(flags(), "");
}

TEST_F(MasterCfTest, PutModuleComparesTextsNotRecords) {
    fill(path_, "x unix - - - - - smtpd -o a=b\ny   unix - - - - - z\n");
    reload();
    MasterCfModule record = commandService("x", "smtpd");
    record.words.emplace_back("-o a=b");
    model_.putModule(record, true);
    EXPECT_EQ(flags(), "");
    // The record of the caller is kept anyway.
    EXPECT_EQ(describe(model_.getModule("x", ModuleType::unix, true).record),
              "x/unix - - - -1 -1 [smtpd][-o a=b]");
    // An equal record in other columns is another text.
    model_.putModule(commandService("y", "z"), true);
    EXPECT_EQ(flags(), "a");
    EXPECT_EQ(text("y"), "y unix - - - - - z");
}

TEST_F(MasterCfTest, PutModuleRemovesTheServiceFromTheOtherStore) {
    model_.putModule(commandService("second", "two"), false);
    EXPECT_EQ(flags(), "ad");
    EXPECT_FALSE(has("second", true));
    reload();
    // Now both hold it, and the text of master.cf is the very one.
    model_.putModule(commandService("second", "two"), true);
    EXPECT_EQ(flags(), "d");
    EXPECT_FALSE(has("second", false));
}

TEST_F(MasterCfTest, EnableModuleOfAnActiveServiceChangesNothingAndSetsNoFlag) {
    model_.enableModule("first", ModuleType::unix);
    EXPECT_EQ(flags(), "");
    EXPECT_EQ(text("first", true), "first   unix  -  -  -  -  -  one");
    EXPECT_FALSE(model_.save(false));
    EXPECT_EQ(entriesOf(directory_.path()), 1U);
}

TEST_F(MasterCfTest, EnableModuleBringsBackTheTextAsItWasStored) {
    model_.disableModule("first", ModuleType::unix);
    EXPECT_EQ(flags(), "ad");
    EXPECT_EQ(text("first", false), "first   unix  -  -  -  -  -  one");
    model_.enableModule("first", ModuleType::unix);
    EXPECT_EQ(text("first", true), "first   unix  -  -  -  -  -  one");
    EXPECT_FALSE(has("first", false));
    EXPECT_EQ(describe(model_.getModule("first", ModuleType::unix, true).record),
              "first/unix - - - -1 -1 [one]");
}

TEST_F(MasterCfTest, EnableModuleSetsBothFlags) {
    model_.putModule(commandService("stored"), false);
    reload();
    model_.enableModule("stored", ModuleType::unix);
    EXPECT_EQ(flags(), "ad");
}

TEST_F(MasterCfTest, EnableModuleOfAnUnknownServiceNamesIt) {
    const auto enable = [&] { model_.enableModule("third", ModuleType::unix); };
    EXPECT_EQ(messageOf<std::out_of_range>(enable), "no such module third");
    model_.disableModule("first", ModuleType::unix);
    EXPECT_EQ(messageOf<std::out_of_range>(enable), "no such module third");
    EXPECT_EQ(messageOf<std::out_of_range>([&] { model_.enableModule("first", ModuleType::inet); }),
              "no such module first");
}

TEST_F(MasterCfTest, DisableModuleOfAnUnknownServiceIsSilent) {
    model_.disableModule("third", ModuleType::unix);
    model_.disableModule("first", ModuleType::inet);
    EXPECT_EQ(flags(), "");
    EXPECT_FALSE(has("third", indeterminate));
}

TEST_F(MasterCfTest, DisableModuleOfADisabledServiceIsSilent) {
    model_.putModule(commandService("stored"), false);
    reload();
    model_.disableModule("stored", ModuleType::unix);
    EXPECT_EQ(flags(), "");
    EXPECT_TRUE(has("stored", false));
}

TEST_F(MasterCfTest, RemoveModuleSetsTheFlagOfEachStoreThatHadIt) {
    model_.putModule(commandService("stored"), false);
    model_.disableModule("second", ModuleType::unix);
    reload(); // "second" is in both now
    model_.removeModule("third", ModuleType::unix);
    EXPECT_EQ(flags(), "");
    model_.removeModule("stored", ModuleType::unix);
    EXPECT_EQ(flags(), "d");
    reload();
    model_.removeModule("first", ModuleType::unix);
    EXPECT_EQ(flags(), "a");
    reload();
    model_.removeModule("second", ModuleType::unix);
    EXPECT_EQ(flags(), "ad");
    EXPECT_FALSE(has("second", indeterminate));
}

TEST_F(MasterCfTest, RemoveModuleWithoutAStoreIsNoError) {
    model_.removeModule("first", ModuleType::unix);
    EXPECT_EQ(flags(), "a");
}

TEST_F(MasterCfTest, MemoryThatRunsOutLeavesStoresAndFlagsAsTheyWere) {
    const std::string name(60, 'n');
    model_.putModule(commandService(name, std::string(60, 'c')), true);
    model_.putModule(commandService("stored", std::string(60, 's')), false);
    reload();
    fill(path_, name + " unix - - - - - " + std::string(60, 'c') + "\n");
    reload();
    const std::string before = text(name, true);
    const auto unchanged = [&] {
        EXPECT_EQ(flags(), "");
        EXPECT_EQ(text(name), before);
        EXPECT_FALSE(has(name, false));
        EXPECT_TRUE(has("stored", false));
        EXPECT_FALSE(has("stored", true));
        EXPECT_FALSE(has(std::string(60, 'x'), indeterminate));
    };
    const auto survives = [&](const std::function<void()>& operation) {
        EXPECT_GT(failEachAllocation(operation, unchanged), 0);
        EXPECT_NE(flags(), "");
        // All changes undone, for the next operation.
        model_.load(true);
        model_.removeModule(name, ModuleType::unix);
        model_.removeModule(std::string(60, 'x'), ModuleType::unix);
        model_.putModule(commandService("stored", std::string(60, 's')), false);
        model_.load(true);
    };
    survives([&] { model_.putModule(commandService(std::string(60, 'x')), true); });
    survives([&] { model_.putModule(commandService(std::string(60, 'x')), false); });
    survives([&] { model_.putModule(commandService(name, "other"), true); });
    survives([&] { model_.putModule(commandService(name, "other"), false); });
    survives([&] { model_.enableModule("stored", ModuleType::unix); });
    survives([&] { model_.disableModule(name, ModuleType::unix); });
    survives([&] { model_.removeModule(name, ModuleType::unix); });
}

} // namespace
} // namespace torva::mail::postfix::testing

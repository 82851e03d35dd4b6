// The check of the alias databases: the files that it creates or does not change. Which
// commands it runs for which values is tests/run/fake/aliases_test.py.
#include "app/SystemAliases.h"
#include "support/FakeTool.h"
#include "support/IndexHolder.h"
#include "support/WaitingChild.h"
#include "torva/libc/Child.h"
#include "torva/libc/SyscallFault.h"
#include "torva/postfix/params/PostfixParameters.h"
#include "torva/util/SystemError.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using testing::ElementsAre;
using testing::IsEmpty;
using torva::SystemError;
using torva::app::SystemAliases;
using torva::mail::postfix::PostfixParameters;
using torva::test::FakeTool;
using torva::test::namesIn;

namespace {

const char postconfPath[] = "/usr/sbin/postconf";
const char postalias[] = "/usr/sbin/postalias";

class SystemAliasesTest : public testing::Test {
protected:
    SystemAliasesTest() {
        ::mkdir(directory.c_str(), 0755);
        mask_ = ::umask(0);
    }
    ~SystemAliasesTest() override {
        ::umask(mask_);
        for (const std::string& name : namesIn(directory)) {
            ::unlink((directory + "/" + name).c_str());
        }
    }
    static void SetUpTestSuite() {
        ASSERT_NE(std::getenv("TORVA_SANDBOX"), nullptr) << "outside scripts/sandbox";
        PostfixParameters::instance();
    }

    /// Checks a parameter that has this value.
    static void check(const std::string& value) {
        const FakeTool fake(postconfPath,
                            "case $2 in alias_maps) echo '" + value + "';; *) echo hash; esac");
        SystemAliases().check("alias_maps");
    }

    static struct stat statusOf(const std::string& path) {
        struct stat found = {};
        EXPECT_EQ(::stat(path.c_str(), &found), 0);
        return found;
    }

    static struct stat linkStatusOf(const std::string& path) {
        struct stat found = {};
        EXPECT_EQ(::lstat(path.c_str(), &found), 0);
        return found;
    }

    static std::string contentOf(const std::string& path) {
        std::ifstream stream(path);
        return {std::istreambuf_iterator<char>(stream), {}};
    }

    inline static const std::string directory = "/etc/aliases.test";
    const std::string source = directory + "/aliases";
    const std::string index = source + ".db";
    const std::string halfMade = directory + "/__db.aliases.db";

private:
    mode_t mask_ = 0;
};

int codeOf(const std::function<void()>& action, const std::string& text) {
    try {
        action();
    } catch (const SystemError& error) {
        EXPECT_EQ(std::string(error.what()).substr(0, text.size()), text);
        return error.code();
    }
    ADD_FAILURE() << "no error";
    return -1;
}

} // namespace

TEST_F(SystemAliasesTest, AMissingSourceIsMadeEmptyWithMode0644AndIndexed) {
    check("hash:" + source);
    EXPECT_EQ(statusOf(source).st_mode, S_IFREG | 0644U);
    EXPECT_EQ(statusOf(source).st_size, 0);
    EXPECT_THAT(namesIn(directory), ElementsAre("aliases", "aliases.db"));
}

TEST_F(SystemAliasesTest, APresentSourceKeepsContentsModeAndTimeOfChange) {
    torva::test::writeFile(source, "root: admin\n");
    ASSERT_EQ(::chmod(source.c_str(), 0640), 0);
    const timespec times[2] = {{1000000000, 0}, {1000000001, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, source.c_str(), times, 0), 0);
    check("hash:" + source);
    EXPECT_EQ(torva::test::contentOf(source), "root: admin\n");
    EXPECT_EQ(statusOf(source).st_mode, S_IFREG | 0640U);
    EXPECT_EQ(statusOf(source).st_mtim.tv_sec, 1000000001);
}

// Mailing lists keep aliases of their own in a directory of theirs.
TEST_F(SystemAliasesTest, LinkThatAnotherAccountMayHaveMadeCreatesAndOverwritesNothing) {
    const std::string victim = "/etc/aliases.victim";
    ASSERT_EQ(::chown(directory.c_str(), 4711, 4711), 0);
    ASSERT_EQ(::symlink(victim.c_str(), source.c_str()), 0);
    EXPECT_THROW(check("hash:" + source), SystemError);
    EXPECT_NE(::access(victim.c_str(), F_OK), 0);

    ::unlink(source.c_str());
    std::ofstream(source) << "ann: ben\n";
    std::ofstream(victim) << "text\n";
    ASSERT_EQ(::symlink(victim.c_str(), index.c_str()), 0);
    check("hash:" + source);
    EXPECT_EQ(contentOf(victim), "text\n");
    EXPECT_TRUE(S_ISREG(linkStatusOf(index).st_mode));
    ::unlink(victim.c_str());
    EXPECT_EQ(::chown(directory.c_str(), 0, 0), 0);
}

TEST_F(SystemAliasesTest, LinksOfTheAdministratorAreFollowed) {
    const std::string elsewhere = directory + "/elsewhere";
    ASSERT_EQ(::symlink("elsewhere", source.c_str()), 0);
    check("hash:" + source);
    EXPECT_TRUE(S_ISREG(linkStatusOf(elsewhere).st_mode));
    ASSERT_EQ(::rename(index.c_str(), (elsewhere + ".db").c_str()), 0);
    ASSERT_EQ(::symlink("elsewhere.db", index.c_str()), 0);
    check("hash:" + source);
    EXPECT_TRUE(S_ISLNK(linkStatusOf(index).st_mode));
}

TEST_F(SystemAliasesTest, LockOfAnAccountThatCanOnlyReadTheIndexStopsNothing) {
    torva::test::writeFile(source, "ann: ben\n");
    check("hash:" + source);
    for (const mode_t mode : {0644U, 0604U}) {
        ASSERT_EQ(::chmod(index.c_str(), mode), 0);
        const auto outcome = torva::test::inChild([&] {
            ::alarm(60);
            const torva::test::IndexHolder holder(index);
            torva::test::writeFile(source, "eve: ben\n");
            check("hash:" + source);
            return 0;
        });
        EXPECT_EQ(outcome.exited, 0) << outcome.err;
        EXPECT_NE(contentOf(index).find("eve"), std::string::npos);
        EXPECT_EQ(contentOf(index).find("ann"), std::string::npos);
        EXPECT_EQ(statusOf(index).st_mode, S_IFREG | mode);
        EXPECT_THAT(namesIn(directory), ElementsAre("aliases", "aliases.db"));
    }
}

TEST_F(SystemAliasesTest, AFailedCreationLeavesTheIndexWithItsMode) {
    torva::test::writeFile(source, "ann: ben\n");
    torva::test::writeFile(index, "what was in it");
    ASSERT_EQ(::chmod(index.c_str(), 0640), 0);
    const FakeTool fake(postalias, "test \"$(stat -c %a " + index + ")\" = 1600 && exit 1");
    EXPECT_EQ(codeOf([&] { check("hash:" + source); }, "unable to re-index system alias map"), 0);
    EXPECT_EQ(contentOf(index), "what was in it");
    EXPECT_EQ(statusOf(index).st_mode, S_IFREG | 0640U);
    EXPECT_THAT(namesIn(directory), ElementsAre("aliases", "aliases.db"));
}

TEST_F(SystemAliasesTest, SourcesOfOtherTypesAreNotMade) {
    check("ldap:" + source + ", nis:" + source + "2, pcre:" + source + "3");
    EXPECT_THAT(namesIn(directory), IsEmpty());
}

TEST_F(SystemAliasesTest, TheHalfMadeIndexOfAnEarlierCreationIsRemovedFirst) {
    torva::test::writeFile(halfMade, "");
    const FakeTool fake(postalias, "test ! -e " + halfMade);
    check("hash:" + source);
    EXPECT_THAT(fake.calls(), ElementsAre("[hash:" + source + "]"));
    EXPECT_THAT(namesIn(directory), ElementsAre("aliases"));
}

TEST_F(SystemAliasesTest, AFailedCreationLeavesNoHalfMadeIndexAndNoCodeOfAnEarlierError) {
    const FakeTool fake(postalias, ": > " + halfMade + "; exit 1");
    errno = EIO;
    EXPECT_EQ(codeOf([&] { check("hash:" + source); }, "unable to re-index system alias map"), 0);
    EXPECT_THAT(namesIn(directory), ElementsAre("aliases"));
}

TEST_F(SystemAliasesTest, ACreationThatASignalEndsIsAFailure) {
    const FakeTool fake(postalias, ": > " + halfMade + "; kill -KILL $$");
    EXPECT_EQ(codeOf([&] { check("hash:" + source); }, "unable to re-index system alias map"), 0);
    EXPECT_THAT(namesIn(directory), ElementsAre("aliases"));
}

TEST_F(SystemAliasesTest, ACommandThatTheSystemHasLostIsWaitedForBeforeTheErrorIsThrown) {
    const FakeTool fake(postalias, "exit 0");
    const auto outcome = torva::test::inChild([this] {
        // system(3) waits for its child by number, and cannot; any child can be waited for.
        if (!torva::test::failSyscall(SYS_wait4, EIO, 0, static_cast<std::uint32_t>(-1), true)) {
            return static_cast<int>(torva::test::noFilters);
        }
        const int code =
            codeOf([&] { check("hash:" + source); }, "unable to re-index system alias map");
        return code == EIO && ::waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD ? 0 : 1;
    });
    if (outcome.exited == torva::test::noFilters) {
        GTEST_SKIP() << "the kernel allows no system call filters";
    }
    EXPECT_EQ(outcome.exited, 0);
}

TEST_F(SystemAliasesTest, AnElementWithoutATypeHasTheDefaultOneUnlessItIsAReference) {
    const FakeTool fake(postalias, "exit 0");
    check(source);
    EXPECT_THAT(fake.calls(), ElementsAre("[" + source + "]"));
    EXPECT_THAT(namesIn(directory), ElementsAre("aliases"));
    fake.forget();
    // A file of that name would be made in the working directory.
    ASSERT_EQ(0, ::chdir(directory.c_str()));
    check("$alias_database"); // which the fake does not expand: nothing is known of it
    ASSERT_EQ(0, ::chdir("/"));
    EXPECT_THAT(fake.calls(), IsEmpty());
    EXPECT_THAT(namesIn(directory), ElementsAre("aliases"));
}

TEST_F(SystemAliasesTest, OtherChildrenOfTheProcessAreNotWaitedFor) {
    const FakeTool fake(postalias, "exit 0");
    const FakeTool parameters(postconfPath, "case $2 in alias_maps) echo hash:" + source +
                                                ";; *) echo hash; esac");
    SystemAliases aliases;
    const torva::test::WaitingChild child;
    // The runs of postconf reap every child of the process; it has not ended by then.
    aliases.check("alias_maps");
    EXPECT_TRUE(child.isThere());
    EXPECT_THAT(fake.calls(), ElementsAre("[hash:" + source + "]"));
}

// What the tests of shielded indexes share: ways to make an index anew, and an index of an
// unusual mode and group, to be found again afterwards.
#pragma once

#include "TablesFixture.h"
#include "support/FakeTool.h"
#include "torva/libc/Child.h"
#include "torva/postfix/tables/CreateTable.h"
#include "torva/postfix/tables/Postmap.h"
#include "torva/postfix/tables/TableRewrite.h"

#include <gmock/gmock.h>

#include <cstdio>
#include <exception>
#include <vector>

namespace torva::test {

/// Of a process that carries out the action, and is ended if that takes a minute.
inline int exitStatusOf(const std::function<void()>& action) {
    ::alarm(60);
    try {
        action();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
    return 0;
}

inline bool ends(const std::function<void()>& action) {
    const Outcome outcome = inChild([&action] { return exitStatusOf(action); });
    EXPECT_EQ(outcome.err, "");
    return outcome.exited == 0;
}

struct Rebuilding {
    const char* name;
    std::function<void()> run;
};

inline const std::vector<Rebuilding> makings = {
    {"create",
     [] {
         mail::postfix::createTable(table, {{"new", "2"}});
     }},
    {"rebuild",
     [] {
         writeFile(source, "new 2\n");
         mail::postfix::rebuildTable(table);
     }},
    {"rewrite", [] { mail::postfix::removeDomainFromTable(table, "d.net", false); }},
};

class ShieldedIndexTest : public TablesTest {
protected:
    /// A table with an index that others may read, of an unusual group and mode.
    static void layOut() {
        removeAll();
        mail::postfix::createTable(table, {{"user@d.net", "1"}, {"new", "2"}});
        ASSERT_EQ(::chown(index_.c_str(), 0, 65534), 0);
        ASSERT_EQ(::chmod(index_.c_str(), 0604), 0);
    }

    static void expectModeAndOwner() {
        EXPECT_EQ(statusOf(index_).st_mode, S_IFREG | 0604U);
        EXPECT_EQ(statusOf(index_).st_uid, 0U);
        EXPECT_EQ(statusOf(index_).st_gid, 65534U);
        EXPECT_THAT(namesIn(directory), testing::ElementsAre("virtual", "virtual.db"));
    }

    /// A tool that tells mode and owner of a file, and goes on.
    static std::string telling(const std::string& path) {
        return "stat -c '%a %u %s' " + path + " >> " + told_ + "; " + passThrough;
    }
    static std::string told() {
        const std::string text = contentOf(told_);
        ::unlink(told_.c_str());
        return text;
    }

    void TearDown() override {
        ::unlink(told_.c_str());
        TablesTest::TearDown();
    }

    inline static const std::string told_ = "/var/spool/postfix/told";
};

} // namespace torva::test

#include "ctl/host/Membership.h"
#include "ctl/host/Scratch.h"

#include <gmock/gmock.h>

namespace torva::ctl {
namespace {

/// A table "broken:" gives no answer, "empty:" has nothing, any other has the name behind the
/// colon.
Membership answer(const std::string& table, const std::string& name) {
    if (table == "broken:") {
        return Membership::unknown;
    }
    return table.substr(table.find(':') + 1) == name ? Membership::yes : Membership::no;
}

Membership membershipOfA(const std::string& list) {
    return membership({"a.example"}, list, answer);
}

struct Row {
    const char* list;
    Membership expected;
};

TEST(MembershipTest, FirstElementThatMatchesDecides) {
    const Row rows[] = {
        {"", Membership::no},
        {"b.example, A.Example", Membership::yes},
        {"x.a.example example", Membership::no},
        {"!a.example, a.example", Membership::no},
        {"a.example !a.example", Membership::yes},
        {"!!a.example", Membership::yes},
        {"!b.example", Membership::no},
        {"! a.example", Membership::unknown},
        {"b.example a.example # c.example", Membership::yes},
        {"b.example #, a.example", Membership::no},
        {"empty: hash:a.example", Membership::yes},
        {"!hash:a.example a.example", Membership::no},
        {"broken: a.example", Membership::unknown},
        {"!broken:", Membership::unknown},
        {"a.example broken:", Membership::yes},
        {"[a.example:b]", Membership::no},
        {"/no/such/file", Membership::unknown},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(membershipOfA(row.list), row.expected) << row.list;
    }
}

TEST(MembershipTest, FilesAreReadLineByLine) {
    const ScratchDirectory scratch;
    scratch.write("list", "# a.example\nb.example\n\nc.example, a.example # more\n");
    scratch.write("others", "b.example\n# a.example\n");
    scratch.write("outer", "c.example\n" + scratch.path() + "/list\n");
    scratch.write("without", "!a.example\n");
    scratch.write("endless", scratch.path() + "/endless\n");
    const std::string directory = scratch.path() + "/";
    EXPECT_EQ(membershipOfA(directory + "list"), Membership::yes);
    EXPECT_EQ(membershipOfA(directory + "others"), Membership::no);
    EXPECT_EQ(membershipOfA(directory + "outer"), Membership::yes);
    EXPECT_EQ(membershipOfA("!" + directory + "list a.example"), Membership::no);
    EXPECT_EQ(membershipOfA(directory + "without a.example"), Membership::no);
    EXPECT_EQ(membershipOfA("!" + directory + "without"), Membership::yes);
    EXPECT_EQ(membershipOfA(directory + "endless"), Membership::unknown);
}

TEST(MembershipTest, AnyOfTheNamesWillDo) {
    EXPECT_EQ(membership({"a.example", "example"}, "example", answer), Membership::yes);
}

} // namespace
} // namespace torva::ctl

// Names that postconf does not know or would take for options, and references.
#include "support/FakeTool.h"
#include "torva/postfix/params/PostfixParameters.h"
#include "torva/util/PostfixError.h"

#include <gmock/gmock.h>

#include <fstream>
#include <functional>
#include <stdexcept>

using namespace torva::mail::postfix;
using testing::ElementsAre;
using testing::IsEmpty;
using torva::test::FakeTool;

namespace {

const char postconf[] = "/usr/sbin/postconf";

std::string refusalOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const std::invalid_argument& error) {
        return error.what();
    }
    return "no error";
}

TEST(ParameterNameTest, NameThatWouldRunAnotherCommandIsRefused) {
    PostfixParameters parameters;
    const FakeTool fake(postconf, "");
    for (const std::string name : {"", "-d", "-e", "--"}) {
        const std::string refusal = "not a parameter: " + name;
        EXPECT_EQ(refusalOf([&] { parameters.getParameter(name); }), refusal);
        EXPECT_EQ(refusalOf([&] { parameters.getParameter(name, true); }), refusal);
        EXPECT_EQ(refusalOf([&] { parameters.getExpandedParameter(name); }), refusal);
        EXPECT_EQ(refusalOf([&] { parameters.hasParameter(name); }), refusal);
        EXPECT_EQ(refusalOf([&] { parameters.setParameter(name, "x"); }), refusal);
        EXPECT_EQ(refusalOf([&] { parameters.addToListParameter(name, "x"); }), refusal);
        EXPECT_EQ(refusalOf([&] { parameters.removeFromListParameter(name, "x"); }), refusal);
    }
    EXPECT_EQ(refusalOf([&] { parameters.setParameter("a=b", "x"); }), "not a parameter: a=b");
    EXPECT_THAT(fake.calls(), IsEmpty());
}

TEST(ParameterNameTest, UnknownOneIsToldApartFromOneThatIsSetToNothing) {
    PostfixParameters parameters;
    parameters.setParameter("relayhost", "");
    EXPECT_EQ(parameters.getParameter("relayhost"), "");
    EXPECT_TRUE(parameters.hasParameter("relayhost"));
    EXPECT_EQ(parameters.getParameter("no_such_parameter"), "");
    EXPECT_FALSE(parameters.hasParameter("no_such_parameter"));
    EXPECT_TRUE(parameters.hasParameter("myhostname"));
}

TEST(ParameterNameTest, OneOfMainCfIsKnownOnceAnotherParameterOrAServiceRefersToIt) {
    PostfixParameters parameters;
    parameters.setParameter("own_first", "1");
    parameters.setParameter("own_second", "2");
    EXPECT_FALSE(parameters.hasParameter("own_first"));
    EXPECT_EQ(parameters.getParameter("own_first"), "");
    parameters.setParameter("relayhost", "$own_first");
    EXPECT_TRUE(parameters.hasParameter("own_first"));
    EXPECT_FALSE(parameters.hasParameter("own_second"));
    std::ofstream("/etc/postfix/master.cf", std::ios_base::app)
        << "own unix - - y - - smtp -o relayhost=$own_second\n";
    EXPECT_TRUE(parameters.hasParameter("own_second"));
}

TEST(ParameterNameTest, QuestionThatFailsIsNoAnswer) {
    PostfixParameters parameters;
    const FakeTool fake(postconf, "echo 'postconf: fatal: no' >&2; exit 1");
    EXPECT_THROW(parameters.hasParameter("x"), PostfixConfigurationError);
    EXPECT_THROW(parameters.getExpandedParameter("x"), PostfixConfigurationError);
    EXPECT_THAT(fake.calls(), ElementsAre("[-h][x]", "[-hx][x]"));
}

TEST(ParameterNameTest, ReferencesAreReplaced) {
    PostfixParameters parameters;
    parameters.setParameter("alias_database", "hash:$config_directory/aliases");
    parameters.setParameter("alias_maps", "$alias_database, ldap:/x");
    EXPECT_EQ(parameters.getParameter("alias_maps"), "$alias_database, ldap:/x");
    EXPECT_EQ(parameters.getExpandedParameter("alias_maps"), "hash:/etc/postfix/aliases, ldap:/x");
}

} // namespace

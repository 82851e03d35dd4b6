// What putModule() refuses: services that the next load() would not find.
#include "torva/postfix/mastercf/ReadBack.h"

#include "Support.h"
#include "torva/postfix/mastercf/MasterCf.h"

#include <gmock/gmock.h>

namespace torva::mail::postfix::testing {
namespace {

MasterCfModule service(const std::string& name, std::vector<std::string> words) {
    MasterCfModule record;
    record.name = name;
    record.type = ModuleType::unix;
    record.words = std::move(words);
    return record;
}

std::string refusalOf(const MasterCfModule& record) {
    return messageOf<std::invalid_argument>(
        [&] { requireReadsBack(record, formatModule(record)); });
}

/// Whether the grammar reads the text as one line, which is this service.
bool isReadBack(const MasterCfModule& record) {
    const std::string text = formatModule(record);
    MasterCfLines lines;
    return parseText(text, lines) && lines.lines().size() == 1 &&
           lines.contains(MasterCfLines::keyOf(record));
}

const MasterCfModule refused[] = {
    service("", {"smtpd"}),
    service("a", {}),
    service("a", {""}),
    service("a", {" ", "\t"}),
    service("a b", {"smtpd"}),
    service(" a", {"smtpd"}),
    service("a\t", {"smtpd"}),
    service("a\n", {"smtpd"}),
    service("#a", {"smtpd"}),
    service("A", {"smtpd"}),
    service("a/b", {"smtpd"}),
    service("a\xC3\xA4", {"smtpd"}),
    service("a", {"smtpd\n"}),
    service("a", {"smtpd", "-o", "x=\ny"}),
    service("a", {"smtpd", "x=\n  y"}),
    service("a", {"smtpd\nb unix - - - - - smtpd"}),
    service("a", {"smtpd", "#x"}),
    service("a", {"smtpd", "x#"}),
    service("a", {"smtpd", "\xC3\xA4"}),
    service("a", {"smtpd", "x\v"}),
};

TEST(ReadBackTest, WhatTheGrammarDoesNotReadAsThatOneServiceIsRefused) {
    for (const MasterCfModule& record : refused) {
        EXPECT_EQ(refusalOf(record), "not a service of master.cf: " + formatModule(record));
    }
}

TEST(ReadBackTest, NumbersAndTypesThatReadAsOthersAreRefused) {
    MasterCfModule record = service("a", {"smtpd"});
    record.wakeup = -2;
    EXPECT_NE(refusalOf(record), "nothing thrown");
    record = service("a", {"smtpd"});
    record.maxproc = -2;
    EXPECT_NE(refusalOf(record), "nothing thrown");
    record = service("a", {"smtpd"});
    record.type = static_cast<ModuleType>(3);
    EXPECT_NE(refusalOf(record), "nothing thrown");
}

TEST(ReadBackTest, WordsWithBlanksGoThrough) {
    const MasterCfModule records[] = {
        service("a", {"smtpd", " -o x=", "-o y=z", ""}),
        service("127.0.0.1:10026", {"/a/b", "!\"$%&'()*+,-./:;<=>?@[\\]^_`{|}~"}),
        service("-", {"\tsmtpd\r"}),
    };
    for (const MasterCfModule& record : records) {
        EXPECT_EQ(refusalOf(record), "nothing thrown");
        EXPECT_TRUE(isReadBack(record)) << formatModule(record);
    }
}

TEST(ReadBackTest, EveryByteIsJudgedAsTheGrammarReadsIt) {
    for (int byte = 0; byte < 256; ++byte) {
        const std::string c(1, static_cast<char>(byte));
        if (c != "\n") { // which the grammar accepts within a service
            const MasterCfModule word = service("a", {"x" + c + "x"});
            EXPECT_EQ(refusalOf(word) == "nothing thrown", isReadBack(word)) << byte;
        }
        const MasterCfModule name = service("x" + c + "x", {"x"});
        EXPECT_EQ(refusalOf(name) == "nothing thrown", isReadBack(name)) << byte;
    }
}

TEST(ReadBackTest, PutModuleRefusesAndChangesNothing) {
    if (std::filesystem::exists(MasterCf::disabledPath)) {
        GTEST_SKIP() << "this machine has a store of disabled services, which load() would read";
    }
    const TempDir directory;
    fill(directory / "master.cf", "a unix - - - - - one\n");
    MasterCf model(directory / "master.cf");
    model.load(false);
    for (const MasterCfModule& record : refused) {
        EXPECT_THROW(model.putModule(record, true), std::invalid_argument);
        EXPECT_THROW(model.putModule(record, false), std::invalid_argument);
    }
    EXPECT_FALSE(model.activeChanged());
    EXPECT_FALSE(model.disabledChanged());
    EXPECT_EQ(model.getModule("a", ModuleType::unix, true).text, "a unix - - - - - one");
}

} // namespace
} // namespace torva::mail::postfix::testing

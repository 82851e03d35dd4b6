// What putModule() refuses: services that the next load() would not find.
#include "torva/postfix/mastercf/ReadBack.h"

#include "Support.h"
#include "torva/postfix/mastercf/MasterCf.h"

#include <gmock/gmock.h>

namespace torva::mail::postfix::testing {
namespace {

MasterCfModule serviceOf(const std::string& name, std::vector<std::string> words) {
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
    serviceOf("", {"smtpd"}),
    serviceOf("a", {}),
    serviceOf("a", {""}),
    serviceOf("a", {" ", "\t"}),
    serviceOf("a b", {"smtpd"}),
    serviceOf(" a", {"smtpd"}),
    serviceOf("a\t", {"smtpd"}),
    serviceOf("a\n", {"smtpd"}),
    serviceOf("#a", {"smtpd"}),
    serviceOf("A", {"smtpd"}),
    serviceOf("a/b", {"smtpd"}),
    serviceOf("a\xC3\xA4", {"smtpd"}),
    serviceOf("a", {"smtpd\n"}),
    serviceOf("a", {"smtpd", "-o", "x=\ny"}),
    serviceOf("a", {"smtpd", "x=\n  y"}),
    serviceOf("a", {"smtpd\nb unix - - - - - smtpd"}),
    serviceOf("a", {"smtpd", "#x"}),
    serviceOf("a", {"smtpd", "x#"}),
    serviceOf("a", {"smtpd", "\xC3\xA4"}),
    serviceOf("a", {"smtpd", "x\v"}),
};

TEST(ReadBackTest, WhatTheGrammarDoesNotReadAsThatOneServiceIsRefused) {
    for (const MasterCfModule& record : refused) {
        EXPECT_EQ(refusalOf(record), "not a service of master.cf: " + formatModule(record));
    }
}

TEST(ReadBackTest, NumbersAndTypesThatReadAsOthersAreRefused) {
    MasterCfModule record = serviceOf("a", {"smtpd"});
    record.wakeup = -2;
    EXPECT_NE(refusalOf(record), "nothing thrown");
    record = serviceOf("a", {"smtpd"});
    record.maxproc = -2;
    EXPECT_NE(refusalOf(record), "nothing thrown");
    record = serviceOf("a", {"smtpd"});
    record.type = static_cast<ModuleType>(3);
    EXPECT_NE(refusalOf(record), "nothing thrown");
}

TEST(ReadBackTest, WordsWithBlanksGoThrough) {
    const MasterCfModule records[] = {
        serviceOf("a", {"smtpd", " -o x=", "-o y=z", ""}),
        serviceOf("127.0.0.1:10026", {"/a/b", "!\"$%&'()*+,-./:;<=>?@[\\]^_`{|}~"}),
        serviceOf("-", {"\tsmtpd\r"}),
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
            const MasterCfModule word = serviceOf("a", {"x" + c + "x"});
            EXPECT_EQ(refusalOf(word) == "nothing thrown", isReadBack(word)) << byte;
        }
        const MasterCfModule name = serviceOf("x" + c + "x", {"x"});
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

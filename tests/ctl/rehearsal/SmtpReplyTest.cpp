#include "ctl/rehearsal/SmtpReply.h"

#include <gtest/gtest.h>
#include <stdexcept>

using torva::ctl::rehearsal::SmtpReply;
using torva::ctl::rehearsal::SmtpReplyReader;

namespace {

struct ReplyCase {
    const char* name;
    std::string bytes;
    std::vector<std::pair<int, std::string>> replies;
};

void PrintTo(const ReplyCase& tested, std::ostream* out) {
    *out << tested.name;
}

const ReplyCase replyCases[] = {
    {"OneLine", "250 2.1.0 Ok\r\n", {{250, "250 2.1.0 Ok"}}},
    {"SeveralLinesAreOneReply", "250-a\r\n250-b\r\n250 c\r\n", {{250, "250 a b c"}}},
    {"CodeAlone", "354\r\n", {{354, "354"}}},
    {"EmptyLinesOfAReply", "250-\r\n250 \r\n", {{250, "250"}}},
    {"TwoReplies", "220 a\r\n250 b\r\n", {{220, "220 a"}, {250, "250 b"}}},
    {"LineFeedAlone", "451 4.3.0 x\n", {{451, "451 4.3.0 x"}}},
    {"UnfinishedLineIsNoReply", "250 Ok", {}},
    {"UnfinishedReplyIsNone", "250-Ok\r\n", {}},
    {"NotSmtp", "SSH-2.0-x\r\n", {{0, "SSH-2.0-x"}}},
    {"NoCode", "999 x\r\n", {{0, "999 x"}}},
    {"CodeGoesOn", "2500 x\r\n", {{0, "2500 x"}}},
    {"EmptyLine", "\r\n", {{0, ""}}},
    {"ControlCharacters", "250 a\033b\r\n", {{250, "250 a b"}}},
};

class SmtpReplyTest : public testing::TestWithParam<ReplyCase> {};

std::vector<std::pair<int, std::string>> allReplies(SmtpReplyReader& reader) {
    std::vector<std::pair<int, std::string>> replies;
    while (reader.hasReply()) {
        const SmtpReply reply = reader.take();
        replies.emplace_back(reply.code, reply.text);
    }
    return replies;
}

TEST_P(SmtpReplyTest, IsReadAtOnce) {
    SmtpReplyReader reader;
    reader.feed(GetParam().bytes);
    EXPECT_EQ(allReplies(reader), GetParam().replies);
}

TEST_P(SmtpReplyTest, IsReadByteByByte) {
    SmtpReplyReader reader;
    for (const char byte : GetParam().bytes) {
        reader.feed({&byte, 1});
    }
    EXPECT_EQ(allReplies(reader), GetParam().replies);
}

INSTANTIATE_TEST_SUITE_P(Servers, SmtpReplyTest, testing::ValuesIn(replyCases),
                         [](const auto& tested) { return std::string(tested.param.name); });

TEST(SmtpReplyTest, EndlessLineFillsNoMemory) {
    SmtpReplyReader reader;
    reader.feed(std::string(100000, '2'));
    EXPECT_TRUE(reader.hasReply());
    EXPECT_EQ(reader.take().code, 0);
}

TEST(SmtpReplyTest, TakingWithoutAReplyIsAnError) {
    EXPECT_THROW(SmtpReplyReader().take(), std::logic_error);
}

} // namespace

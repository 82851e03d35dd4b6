#include "ctl/report/JsonText.h"
#include "ctl/report/Wrap.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace torva::ctl {
namespace {

TEST(ReportTextTest, LinesAreBrokenAtBlanks) {
    EXPECT_EQ(wrapped("one two three", 12, 4), "one two\n    three");
    EXPECT_EQ(wrapped("one two three", 80, 4), "one two three");
    EXPECT_EQ(wrapped("", 80, 4), "");
}

TEST(ReportTextTest, LongWordStaysWhole) {
    EXPECT_EQ(wrapped("a /very/long/path b", 10, 2), "a\n  /very/long/path\n  b");
}

TEST(ReportTextTest, EveryByteComesBackFromText) {
    std::string bytes;
    for (int byte = 0; byte < 256; ++byte) {
        bytes += static_cast<char>(byte);
    }
    EXPECT_EQ(bytesOfText(textOfBytes(bytes)), bytes);
    EXPECT_EQ(textOfBytes("\xe9"), "\xc3\xa9");
}

TEST(ReportTextTest, OtherTextIsRefused) {
    EXPECT_THROW(bytesOfText("\xe2\x82\xac"), std::runtime_error);
    EXPECT_THROW(bytesOfText("\xc3"), std::runtime_error);
}

} // namespace
} // namespace torva::ctl

#include "torva/libc/escape.h"

#include <gtest/gtest.h>
#include <set>
#include <string>

TEST(EscapeTest, TheTableMarksTheTwentyUnsafeBytesAndNoOther) {
    const std::set<int> backslash = {9,  32, 34, 35, 36, 38, 39, 40,  41, 42,
                                     59, 60, 62, 63, 91, 92, 96, 124, 126};
    for (int byte = 0; byte < 256; ++byte) {
        const char wanted = byte == 10 ? 'n' : backslash.count(byte) != 0 ? '*' : '-';
        EXPECT_EQ(shell_escape_chars[byte], wanted) << "byte " << byte;
    }
}

TEST(EscapeTest, IsShellSafe) {
    const struct {
        const char* text;
        int safe;
    } cases[] = {
        {nullptr, 1},
        {"", 1},
        {"abcXYZ019-./", 1},
        {"/usr/sbin/postmap", 1},
        {"gr\xc3\xbc\xc3\x9f"
         "e\xff",
         1},
        {"a b", 0},
        {"a\nb", 0},
        {"a\tb", 0},
        {"$HOME", 0},
        {"end;", 0},
        {"`", 0},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(is_shell_safe(c.text), c.safe) << (c.text != nullptr ? c.text : "(null)");
    }
}

TEST(EscapeTest, ATextOfOneByteIsSafeExactlyWhenItsMarkSaysSo) {
    for (int byte = 1; byte < 256; ++byte) {
        const std::string text(1, static_cast<char>(byte));
        EXPECT_EQ(is_shell_safe(text.c_str()), shell_escape_chars[byte] == '-' ? 1 : 0) << byte;
    }
}

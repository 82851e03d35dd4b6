#include "torva/util/ShellSafe.h"

#include <gtest/gtest.h>
#include <typeinfo>

using torva::requireShellSafe;
using namespace std::string_literals;

TEST(ShellSafeTest, SafeTextsPass) {
    for (const std::string& text :
         {""s, "abc"s, "/usr/local/kra-1.0/bin"s, "a=b,c:d"s, "a\0b"s, "gr\xc3\xbcn"s}) {
        EXPECT_NO_THROW(requireShellSafe(text)) << text;
    }
}

TEST(ShellSafeTest, UnsafeTextsAreAnInternalError) {
    for (const std::string& text : {"a b"s, "$x"s, "a\nb"s, "`"s, "a;"s, "~"s, "a\0;"s, "\0\0 "s}) {
        try {
            requireShellSafe(text);
            ADD_FAILURE() << text;
        } catch (const std::runtime_error& error) {
            EXPECT_STREQ(error.what(), "Internal error: bad escape_chars value");
            EXPECT_TRUE(typeid(error) == typeid(std::runtime_error));
        }
    }
}

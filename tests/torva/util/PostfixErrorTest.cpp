#include "torva/util/PostfixError.h"

#include <gtest/gtest.h>
#include <type_traits>

using namespace torva::mail::postfix;

TEST(PostfixErrorTest, TheTextIsTheMessageUnchanged) {
    const std::string message = "postconf: fatal: text\n  with  blanks \n";
    EXPECT_EQ(PostfixError(message).what(), message);
    EXPECT_EQ(PostfixConfigurationError(message).what(), message);
    EXPECT_EQ(PostfixDatabaseError(message).what(), message);
    EXPECT_STREQ(PostfixError("").what(), "");
}

TEST(PostfixErrorTest, ClassTree) {
    static_assert(std::is_base_of_v<std::runtime_error, PostfixError>);
    static_assert(std::is_base_of_v<PostfixError, PostfixConfigurationError>);
    static_assert(std::is_base_of_v<PostfixError, PostfixDatabaseError>);
    static_assert(!std::is_base_of_v<PostfixConfigurationError, PostfixDatabaseError>);
    static_assert(std::has_virtual_destructor_v<PostfixError>);
}

#include "torva/maildb/panel_db.h"

#include "support/HeapCensus.h"
#include "torva/libc/Child.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace {

TEST(SafeName, LettersDigitsAndTheSignsOfAddressesAreSafe) {
    EXPECT_EQ(1, db_is_safe_name("ABCXYZabcxyz0189-._+=@"));
}

TEST(SafeName, EveryOtherByteIsUnsafe) {
    const std::string safe = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-._+=@";
    for (int byte = 1; byte < 256; ++byte) {
        const char c = static_cast<char>(byte);
        const std::string name = std::string("a") + c + "b";
        EXPECT_EQ(safe.find(c) == std::string::npos ? 0 : 1, db_is_safe_name(name.c_str()))
            << "byte " << byte;
    }
}

TEST(SafeName, NoNameIsUnsafe) {
    EXPECT_EQ(0, db_is_safe_name(""));
    EXPECT_EQ(0, db_is_safe_name(nullptr));
}

TEST(Utf8Flag, IsNotSetBeforeAnySession) {
    EXPECT_EQ(0, db_utf8_compatible);
}

TEST(FreeList, NoListIsAllowed) {
    db_free_list(nullptr);
}

TEST(FreeList, TheListAndItsTextsAreFreed) {
    if (TORVA_TEST_ASAN != 0) {
        GTEST_SKIP() << "the sanitizer's allocator keeps no books of this kind";
    }
    EXPECT_EQ(0, torva::test::blocksLeftBy([] {
                  auto** list = static_cast<char**>(std::calloc(3, sizeof(char*)));
                  list[0] = ::strdup("one that is longer than any small block of memory is");
                  list[1] = ::strdup("another that is longer than any small block of memory is");
                  db_free_list(list);
              }));
}

} // namespace

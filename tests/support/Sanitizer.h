// Whether this program is compiled with the address sanitizer, by GCC or by clang.
#pragma once

#if defined(__SANITIZE_ADDRESS__)
#define TORVA_TEST_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TORVA_TEST_ASAN 1
#endif
#endif
#ifndef TORVA_TEST_ASAN
#define TORVA_TEST_ASAN 0
#endif

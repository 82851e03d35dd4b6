#include "FailingSystemCall.h"

#include <cstddef>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stdexcept>
#include <sys/prctl.h>

namespace torva::process::testing {
namespace {

sock_filter load(std::size_t offset) {
    return BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<std::uint32_t>(offset));
}

// Skips this many statements if the loaded word is different.
sock_filter unlessEqualSkip(std::uint32_t value, std::uint8_t statements) {
    return BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, 0, statements);
}

sock_filter answer(std::uint32_t value) {
    return BPF_STMT(BPF_RET | BPF_K, value);
}

} // namespace

bool canFailSystemCalls() {
    return inSubprocess([](std::ostream& out) {
               failSystemCalls({});
               out << "yes";
           }) == "yes";
}

void FailingCallTest::SetUp() {
    ProcessTest::SetUp();
    if (!canFailSystemCalls()) {
        GTEST_SKIP() << "no seccomp filters here, system calls cannot be made to fail";
    }
}

void failSystemCalls(const std::vector<FailingCall>& calls) {
    std::vector<sock_filter> filter;
    for (const FailingCall& call : calls) {
        const std::uint32_t failure = SECCOMP_RET_ERRNO | static_cast<std::uint32_t>(call.error);
        const auto number = static_cast<std::uint32_t>(call.number);
        filter.push_back(load(offsetof(seccomp_data, nr)));
        if (call.argument == -1) {
            filter.push_back(unlessEqualSkip(number, 1));
        } else {
            filter.push_back(unlessEqualSkip(number, 3));
            // The low half comes first on this kind of machine.
            filter.push_back(load(offsetof(seccomp_data, args) +
                                  static_cast<std::size_t>(call.argument) * sizeof(__u64)));
            filter.push_back(unlessEqualSkip(call.value, 1));
        }
        filter.push_back(answer(failure));
    }
    filter.push_back(answer(SECCOMP_RET_ALLOW));
    const sock_fprog program = {static_cast<unsigned short>(filter.size()), filter.data()};
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == -1 ||
        ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == -1) {
        throw std::runtime_error("seccomp filter refused");
    }
}

} // namespace torva::process::testing

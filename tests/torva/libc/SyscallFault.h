// Makes system calls of this process fail, with a seccomp(2) filter, where the
// failure cannot be produced otherwise. For forked children only: it cannot be undone.
#pragma once

#include <cstddef>
#include <cstdint>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

namespace torva::test {

/// The result of a child's body when there are no filters here.
enum { noFilters = 77 };

/// \param number    of the system call, SYS_...
/// \param error     errno value that it fails with from now on
/// \param argument  index of an argument to check; -1: every call fails
/// \param value     lower half of that argument in the calls that fail
/// \param others    true: the calls with any other value fail
/// \return false when the kernel allows no filters
inline bool failSyscall(long number, int error, int argument = -1, std::uint32_t value = 0,
                        bool others = false) {
    const auto jump = [](std::uint32_t operand, std::uint8_t ifTrue, std::uint8_t ifFalse) {
        return sock_filter{BPF_JMP | BPF_JEQ | BPF_K, ifTrue, ifFalse, operand};
    };
    const auto load = [](std::size_t offset) {
        return sock_filter{BPF_LD | BPF_W | BPF_ABS, 0, 0, static_cast<std::uint32_t>(offset)};
    };
    const auto answer = [](std::uint32_t action) {
        return sock_filter{BPF_RET | BPF_K, 0, 0, action};
    };
    const std::size_t argumentOffset =
        offsetof(seccomp_data, args) + 8 * static_cast<std::size_t>(argument < 0 ? 0 : argument);
    const std::uint8_t everyCall = 3; // leads past the look at the argument
    // Little endian: the lower half comes first.
    sock_filter program[] = {
        load(offsetof(seccomp_data, nr)),
        jump(static_cast<std::uint32_t>(number), argument < 0 ? everyCall : std::uint8_t{0}, 2),
        load(argumentOffset),
        jump(value, others ? 0 : 1, others ? 1 : 0),
        answer(SECCOMP_RET_ALLOW),
        answer(SECCOMP_RET_ERRNO | static_cast<std::uint32_t>(error)),
    };
    sock_fprog filter = {sizeof(program) / sizeof(program[0]), program};
    return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

/// Makes fstat(2) fail, by whichever system call the C library asks for it.
inline bool failFstat(int error) {
    return failSyscall(SYS_newfstatat, error, 3, AT_EMPTY_PATH) && failSyscall(SYS_fstat, error);
}

} // namespace torva::test

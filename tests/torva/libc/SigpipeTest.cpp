#include "torva/libc/sigpipe.h"

#include "torva/libc/Child.h"

#include <cerrno>
#include <csignal>
#include <gtest/gtest.h>
#include <pthread.h>

using torva::test::inChild;

namespace {

bool isPending() {
    sigset_t pending;
    ::sigpending(&pending);
    return ::sigismember(&pending, SIGPIPE) == 1;
}

bool isBlocked() {
    sigset_t mask;
    ::pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    return ::sigismember(&mask, SIGPIPE) == 1;
}

void block() {
    sigset_t mask;
    ::sigemptyset(&mask);
    ::sigaddset(&mask, SIGPIPE);
    ::pthread_sigmask(SIG_BLOCK, &mask, nullptr);
}

/// The write end of a pipe without a reader.
int readerless() {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) == 0) {
        ::close(fds[0]);
    }
    return fds[1];
}

bool writeFailsWithEpipe(int fd) {
    return ::write(fd, "x", 1) == -1 && errno == EPIPE;
}

} // namespace

TEST(SigpipeTest, AHeldWriteFailsAndTheSignalIsNeverDelivered) {
    const auto outcome = inChild([] {
        const int fd = readerless();
        const int held = sigpipe_hold();
        const bool failed = writeFailsWithEpipe(fd);
        sigpipe_release(held);
        return failed && !isPending() && !isBlocked() ? 0 : 1;
    });
    EXPECT_EQ(outcome.exited, 0);
}

TEST(SigpipeTest, TheNextWriteOfTheProgramItselfStillMeetsTheSignal) {
    const auto outcome = inChild([] {
        sigpipe_release(sigpipe_hold());
        static_cast<void>(writeFailsWithEpipe(readerless()));
        return 0;
    });
    EXPECT_EQ(outcome.exited, -1) << "it should have died of SIGPIPE";
}

TEST(SigpipeTest, ABlockedSignalStaysBlockedAndOursIsDropped) {
    const auto outcome = inChild([] {
        block();
        const int held = sigpipe_hold();
        const bool failed = writeFailsWithEpipe(readerless());
        sigpipe_release(held);
        return failed && !isPending() && isBlocked() ? 0 : 1;
    });
    EXPECT_EQ(outcome.exited, 0);
}

TEST(SigpipeTest, ASignalThatWasPendingBeforeStaysPending) {
    const auto outcome = inChild([] {
        block();
        ::raise(SIGPIPE);
        const int held = sigpipe_hold();
        const bool failed = writeFailsWithEpipe(readerless());
        sigpipe_release(held);
        return failed && isPending() && isBlocked() ? 0 : 1;
    });
    EXPECT_EQ(outcome.exited, 0);
}

TEST(SigpipeTest, HoldsNestAndTheActionIsNeverTouched) {
    const auto outcome = inChild([] {
        static volatile std::sig_atomic_t handled = 0;
        std::signal(SIGPIPE, [](int) { handled = 1; });
        const int outer = sigpipe_hold();
        const int inner = sigpipe_hold();
        const bool failed = writeFailsWithEpipe(readerless());
        sigpipe_release(inner);
        const bool stillHeld = isBlocked();
        const bool failedAgain = writeFailsWithEpipe(readerless());
        sigpipe_release(outer);
        if (!failed || !failedAgain || !stillHeld || handled != 0) {
            return 1;
        }
        ::raise(SIGPIPE);
        return handled == 1 ? 0 : 2;
    });
    EXPECT_EQ(outcome.exited, 0);
}

TEST(SigpipeTest, OtherThreadsAreNotAffected) {
    const auto outcome = inChild([] {
        const int held = sigpipe_hold();
        static bool blockedThere = false;
        pthread_t other;
        // A new thread inherits the mask of its maker: it lets the signal through first.
        ::pthread_create(
            &other, nullptr,
            [](void*) -> void* {
                sigset_t mask;
                ::sigemptyset(&mask);
                ::sigaddset(&mask, SIGPIPE);
                ::pthread_sigmask(SIG_UNBLOCK, &mask, nullptr);
                sigpipe_release(sigpipe_hold());
                blockedThere = isBlocked();
                return nullptr;
            },
            nullptr);
        ::pthread_join(other, nullptr);
        const bool heldHere = isBlocked();
        sigpipe_release(held);
        return !blockedThere && heldHere && !isBlocked() ? 0 : 1;
    });
    EXPECT_EQ(outcome.exited, 0);
}

TEST(SigpipeTest, ErrnoIsKept) {
    errno = EXDEV;
    const int held = sigpipe_hold();
    EXPECT_EQ(errno, EXDEV);
    sigpipe_release(held); // sigtimedwait(2) fails with EAGAIN in it
    EXPECT_EQ(errno, EXDEV);
}

// Commands that write to our standard error, and its reader.
#include "app/CollectedErrors.h"

#include "torva/libc/Child.h"
#include "torva/libc/SyscallFault.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using torva::app::CollectedErrors;
using torva::test::inChild;

namespace {

const char sayAndFail[] = "printf a >&2; printf b >&2; exit 3";

/// Makes a pipe our standard error. \return its other end
int pipeAsStandardError() {
    int ends[2] = {-1, -1};
    if (::pipe2(ends, O_CLOEXEC) == 0) {
        ::dup2(ends[1], STDERR_FILENO);
        ::close(ends[1]);
    }
    return ends[0];
}

int exitStatusOf(const char* command) {
    const int status = std::system(command); // NOLINT(cert-env33-c)
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace

TEST(CollectedErrorsTest, WhatACommandSaysArrivesWholeAfterIt) {
    EXPECT_EQ(
        0, inChild([] {
               const int reader = pipeAsStandardError();
               ::fcntl(reader, F_SETFL, O_NONBLOCK);
               char text[8] = "";
               {
                   const CollectedErrors errors;
                   if (exitStatusOf(sayAndFail) != 3 || ::read(reader, text, sizeof(text)) != -1) {
                       return 1;
                   }
               }
               return ::read(reader, text, sizeof(text)) == 2 && text == std::string("ab") ? 0 : 2;
           }).exited);
}

TEST(CollectedErrorsTest, SingleByteArrivesToo) {
    EXPECT_EQ(0, inChild([] {
                     const int reader = pipeAsStandardError();
                     char text[8] = "";
                     {
                         const CollectedErrors errors;
                         (void)!std::system("printf x >&2");
                     }
                     ::fcntl(reader, F_SETFL, O_NONBLOCK);
                     return ::read(reader, text, sizeof(text)) == 1 && text[0] == 'x' ? 0 : 1;
                 }).exited);
}

TEST(CollectedErrorsTest, CommandOutlivesTheReader) {
    EXPECT_EQ(3, inChild([] {
                     ::close(pipeAsStandardError());
                     const CollectedErrors errors;
                     return exitStatusOf(sayAndFail);
                 }).exited);
}

TEST(CollectedErrorsTest, EndOfTheReaderEndsUsNeither) {
    EXPECT_EQ(0, inChild([] {
                     ::close(pipeAsStandardError());
                     {
                         const CollectedErrors errors;
                         exitStatusOf(sayAndFail);
                     }
                     return 0;
                 }).exited);
}

TEST(CollectedErrorsTest, FileStaysTheStandardError) {
    EXPECT_EQ(0, inChild([] {
                     ::dup2(::open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO);
                     struct stat before {};
                     struct stat during {};
                     ::fstat(STDERR_FILENO, &before);
                     const CollectedErrors errors;
                     ::fstat(STDERR_FILENO, &during);
                     return before.st_ino == during.st_ino && before.st_dev == during.st_dev ? 0
                                                                                             : 1;
                 }).exited);
}

TEST(CollectedErrorsTest, WithoutMemoryThePipeStaysTheStandardError) {
    const int status = inChild([] {
                           const int reader = pipeAsStandardError();
                           if (!torva::test::failSyscall(SYS_memfd_create, ENOSYS)) {
                               return static_cast<int>(torva::test::noFilters);
                           }
                           const CollectedErrors errors;
                           exitStatusOf(sayAndFail);
                           char text[8] = "";
                           return ::read(reader, text, sizeof(text)) == 2 ? 0 : 1;
                       }).exited;
    if (status == torva::test::noFilters) {
        GTEST_SKIP() << "the kernel allows no system call filters";
    }
    EXPECT_EQ(status, 0);
}

TEST(CollectedErrorsTest, LeavesErrnoAndNoDescriptor) {
    EXPECT_EQ(0, inChild([] {
                     const int reader = pipeAsStandardError();
                     const int next = ::dup(reader);
                     ::close(next);
                     errno = EDOM;
                     {
                         const CollectedErrors errors;
                         if (errno != EDOM || ::fcntl(next, F_GETFD) != FD_CLOEXEC) {
                             return 1;
                         }
                         errno = ERANGE;
                     }
                     return errno == ERANGE && ::fcntl(next, F_GETFD) == -1 ? 0 : 2;
                 }).exited);
}

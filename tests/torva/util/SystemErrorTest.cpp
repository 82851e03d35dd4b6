#include "torva/util/SystemError.h"

#include "torva/util/LibraryFaults.h"

#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <type_traits>
#include <typeinfo>
#include <vector>

using torva::ExSystemError;
using torva::SystemError;
using torva::throwSystemError;
using torva::test::libraryFaults;

TEST(SystemErrorTest, TextIsTheMessageAColonAndTheSystemsText) {
    EXPECT_STREQ(SystemError("select", EINTR).what(), "select: Interrupted system call");
    EXPECT_STREQ(SystemError(std::string("write"), EPIPE).what(), "write: Broken pipe");
    EXPECT_STREQ(SystemError("mkstemp() failed: ", ENOENT).what(),
                 "mkstemp() failed: : No such file or directory");
    EXPECT_STREQ(SystemError("x", 9999).what(), "x: Unknown error 9999");
}

TEST(SystemErrorTest, EmptyMessageAnswersTheSystemTextAlone) {
    EXPECT_STREQ(SystemError("", EACCES).what(), "Permission denied");
    EXPECT_STREQ(SystemError(std::string(), EACCES).what(), "Permission denied");
}

TEST(SystemErrorTest, CodeZeroIsTheErrnoOfTheFailedOpenHoweverItChangesLater) {
    ASSERT_EQ(::open("/nonexistent/file", O_RDONLY), -1);
    const SystemError error("open", 0);
    errno = EINVAL;
    EXPECT_EQ(error.code(), ENOENT);
    EXPECT_STREQ(error.what(), "open: No such file or directory");
}

TEST(SystemErrorTest, TheCodeIsOptional) {
    errno = EMFILE;
    EXPECT_EQ(SystemError("pipe").code(), EMFILE);
    errno = 0;
    EXPECT_STREQ(SystemError("pipe").what(), "pipe: Success");
}

TEST(SystemErrorTest, ErrnoIsTakenBeforeTheMessageIsCopied) {
    const std::string message = "a message that is long enough to need memory of its own";
    libraryFaults.newSetsErrno = ENOMEM;
    errno = ENOENT;
    const SystemError fromText(message);
    errno = ENOENT;
    const SystemError fromLiteral("a message that is long enough to need memory of its own");
    const int afterwards = errno;
    libraryFaults = {};
    EXPECT_EQ(afterwards, ENOMEM) << "the copy does change errno";
    EXPECT_EQ(fromText.code(), ENOENT);
    EXPECT_EQ(fromLiteral.code(), ENOENT);
}

TEST(SystemErrorTest, TheTextIsBuiltOnce) {
    const SystemError error("control pipe read", EIO);
    const char* first = error.what();
    libraryFaults = {};
    const char* second = error.what();
    EXPECT_EQ(libraryFaults.newCalls, 0);
    EXPECT_EQ(first, second);
    EXPECT_STREQ(second, "control pipe read: Input/output error");
}

TEST(SystemErrorTest, LackOfMemoryAnswersTheBareMessageAndIsNotRemembered) {
    const SystemError error("control pipe read, which is long", EIO);
    libraryFaults.newFails = true;
    const std::string_view text = error.what();
    libraryFaults = {};
    EXPECT_EQ(text, "control pipe read, which is long");
    EXPECT_STREQ(error.what(), "control pipe read, which is long: Input/output error");
    static_assert(noexcept(error.what()), "what() never throws");
}

TEST(SystemErrorTest, ACopyHasCodeAndText) {
    const SystemError error("fcntl", EBADF);
    std::vector<SystemError> copies = {error}; // before the text is built, and after
    error.what();
    copies.push_back(error);
    for (const SystemError& copy : copies) {
        EXPECT_EQ(copy.code(), EBADF);
        EXPECT_STREQ(copy.what(), "fcntl: Bad file descriptor");
    }
}

TEST(SystemErrorTest, ClassTree) {
    static_assert(std::is_base_of_v<std::runtime_error, SystemError>);
    static_assert(std::is_base_of_v<SystemError, ExSystemError<2>>);
    static_assert(std::has_virtual_destructor_v<SystemError>);
    static_assert(std::has_virtual_destructor_v<ExSystemError<2>>);
}

namespace {

struct ThrownError {
    const std::type_info* type;
    int code;
    std::string text;
};

ThrownError thrownFor(int code) {
    try {
        throwSystemError("op", code);
    } catch (const SystemError& error) {
        return {&typeid(error), error.code(), error.what()};
    }
}

} // namespace

TEST(SystemErrorTest, ThrowingByErrnoGivesItsTypeWhichSystemErrorCatches) {
    const struct {
        int code;
        const std::type_info& type;
        const char* text;
    } cases[] = {
        {EPERM, typeid(ExSystemError<1>), "op: Operation not permitted"},
        {ENOENT, typeid(ExSystemError<2>), "op: No such file or directory"},
        {EINTR, typeid(ExSystemError<4>), "op: Interrupted system call"},
        {ECHILD, typeid(ExSystemError<10>), "op: No child processes"},
        {EAGAIN, typeid(ExSystemError<11>), "op: Resource temporarily unavailable"},
        {EACCES, typeid(SystemError), "op: Permission denied"},
        {ENOMEM, typeid(SystemError), "op: Cannot allocate memory"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        errno = EIO;
        const ThrownError thrown = thrownFor(c.code);
        EXPECT_TRUE(*thrown.type == c.type) << thrown.type->name();
        EXPECT_EQ(thrown.code, c.code);
        EXPECT_EQ(thrown.text, c.text);
    }
}

TEST(SystemErrorTest, ThrowingByErrnoZeroGivesAPlainErrorWithTheCurrentErrno) {
    errno = ENOENT;
    const ThrownError thrown = thrownFor(0);
    EXPECT_TRUE(*thrown.type == typeid(SystemError)) << thrown.type->name();
    EXPECT_EQ(thrown.code, ENOENT);
    EXPECT_EQ(thrown.text, "op: No such file or directory");
}

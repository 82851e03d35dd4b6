#include "torva/util/FatalError.h"

#include "torva/libc/Child.h"
#include "torva/util/Demangle.h"
#include "torva/util/LibraryFaults.h"
#include "torva/util/PostfixError.h"
#include "torva/util/SystemError.h"
#include "torva/util/Traceback.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <memory>
#include <new>

using torva::DemangledName;
using torva::printFatalError;
using torva::SystemError;
using torva::test::inChild;
using torva::test::libraryFaults;
using torva::test::Outcome;

namespace {

class TracedError : public std::runtime_error, public torva::Traceback {
public:
    explicit TracedError(std::uint32_t skipped)
        : std::runtime_error("traced"), Traceback(skipped) {}
};

/// Both copies of what is printed for the error, which must be the same.
std::string printedFor(const std::exception& error) {
    const Outcome outcome = inChild([&] {
        printFatalError(error);
        ::_exit(0); // nothing is flushed any more
        return 0;
    });
    EXPECT_EQ(outcome.out, outcome.err);
    return outcome.err;
}

} // namespace

TEST(FatalErrorTest, OneLineWithTheDynamicTypeAndTheText) {
    const struct {
        std::shared_ptr<const std::exception> error;
        const char* wanted;
    } cases[] = {
        {std::make_shared<SystemError>("write", EPIPE),
         "Fatal error: torva::SystemError(write: Broken pipe)\n"},
        {std::make_shared<torva::ExSystemError<2>>("open"),
         "Fatal error: torva::ExSystemError<2>(open: No such file or directory)\n"},
        {std::make_shared<torva::mail::postfix::PostfixConfigurationError>(
             "unable to parse /etc/postfix/master.cf"),
         "Fatal error: torva::mail::postfix::PostfixConfigurationError(unable to parse "
         "/etc/postfix/master.cf)\n"},
        {std::make_shared<std::logic_error>(""), "Fatal error: std::logic_error()\n"},
        {std::make_shared<std::bad_alloc>(), "Fatal error: std::bad_alloc(std::bad_alloc)\n"},
        {std::make_shared<std::runtime_error>("two\nlines\n"),
         "Fatal error: std::runtime_error(two\nlines\n)\n"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(printedFor(*c.error), c.wanted);
    }
}

TEST(FatalErrorTest, ATypeThatCannotBeDemangledIsPrintedMangled) {
    libraryFaults.demanglerFails = true;
    const std::string text = printedFor(SystemError("write", EPIPE));
    libraryFaults = {};
    EXPECT_EQ(text, "Fatal error: N5torva11SystemErrorE(write: Broken pipe)\n");
}

TEST(FatalErrorTest, TheTraceOfAnErrorThatCarriesOneFollows) {
    libraryFaults.symbols = {"skipped", "prog(_ZN5torva3fooEi+0x12) [0x400]"};
    std::string text;
    try {
        throw TracedError(1);
    } catch (const std::exception& error) {
        text = printedFor(error);
    }
    libraryFaults = {};
    const std::string wanted = "(traced)\nTraceback:\n\tprog(torva::foo(int)+0x12) [0x400]\n\t";
    EXPECT_NE(text.find(wanted), std::string::npos) << text;
    EXPECT_EQ(text.rfind("Fatal error: ", 0), 0U);
    EXPECT_EQ(text.find("skipped"), std::string::npos);
}

TEST(FatalErrorTest, AnEmptyTraceAddsNothing) {
    const std::string text = printedFor(TracedError(11));
    EXPECT_EQ(text.find("Traceback:"), std::string::npos) << text;
    EXPECT_EQ(text.substr(text.size() - 9), "(traced)\n");
}

TEST(DemangledNameTest, ReadableFormOrFalse) {
    EXPECT_STREQ(DemangledName("N5torva11SystemErrorE").get(), "torva::SystemError");
    EXPECT_STREQ(DemangledName("_ZN5torva3fooEi").get(), "torva::foo(int)");
    for (const char* invalid : {"", "main", "_Z", "?"}) {
        const DemangledName name(invalid);
        EXPECT_FALSE(name) << invalid;
        EXPECT_EQ(name.get(), nullptr) << invalid;
    }
}

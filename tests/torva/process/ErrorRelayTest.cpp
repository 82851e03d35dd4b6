#include "torva/process/ErrorRelay.h"

#include "ProcessFixture.h"
#include "torva/process/Descriptor.h"
#include "torva/util/SystemError.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <iostream>
#include <new>
#include <sstream>
#include <stdexcept>
#include <unistd.h>

namespace torva::process {
namespace {

using namespace testing;
using namespace std::string_literals;

class ErrorRelayTest : public ProcessTest {};

struct Caught {
    const char* name;
    std::function<void()> throwIt;
    ChildError wanted;
};

const Caught caughtTable[] = {
    {"system error",
     [] { throw SystemError("execv", ENOENT); },
     {"SystemError", "execv: No such file or directory", ENOENT, 67}},
    {"subclass of system error",
     [] { throwSystemError("open", EPERM); },
     {"SystemError", "open: Operation not permitted", EPERM, 67}},
    {"runtime error",
     [] { throw std::runtime_error("no luck"); },
     {"std::runtime_error", "no luck", std::nullopt, 66}},
    {"other standard exception",
     [] { throw std::logic_error("no sense"); },
     {"std::exception", "no sense", std::nullopt, 66}},
    {"out of memory",
     [] { throw std::bad_alloc(); },
     {"std::exception", "std::bad_alloc", std::nullopt, 66}},
    {"anything else", [] { throw 17; }, {"std::runtime_error", "unknown error", std::nullopt, 65}},
};

TEST_F(ErrorRelayTest, EveryKindOfExceptionHasItsTypeMessageCodeAndExitStatus) {
    for (const Caught& row : caughtTable) {
        SCOPED_TRACE(row.name);
        try {
            row.throwIt();
        } catch (...) {
            const ChildError error = currentError();
            EXPECT_EQ(row.wanted.type, error.type);
            EXPECT_EQ(row.wanted.message, error.message);
            EXPECT_EQ(row.wanted.code, error.code);
            EXPECT_EQ(row.wanted.exitStatus, error.exitStatus);
        }
    }
}

TEST_F(ErrorRelayTest, TagAndTextAreSeparateWritesAndTheCodeRecordIsOne) {
    const std::vector<std::string> withCode = {"ET: ", "SystemError\0"s, "EM: ", "execv: text\0"s,
                                               "EC: 2\0"s};
    EXPECT_EQ(withCode, encodeError({"SystemError", "execv: text", 2, 67}));
    const std::vector<std::string> without = {"ET: ", "std::runtime_error\0"s,
                                              "EM: ", "unknown error\0"s};
    EXPECT_EQ(without, encodeError({"std::runtime_error", "unknown error", std::nullopt, 65}));
    EXPECT_EQ("EC: -2147483648\0"s, encodeError({"SystemError", "", -2147483647 - 1, 67}).back());
}

TEST_F(ErrorRelayTest, TextWithNulEndsThereAndLeavesNoStrayRecord) {
    EXPECT_EQ("one\0"s, encodeError({"std::exception", "one\0two"s, std::nullopt, 66})[3]);
}

TEST_F(ErrorRelayTest, EachPieceIsOneWrite) {
    // A packet pipe returns the writes one by one.
    int fds[2];
    ASSERT_EQ(0, ::pipe2(fds, O_DIRECT | O_CLOEXEC));
    const Descriptor readEnd(fds[0]);
    Descriptor writeEnd(fds[1]);
    writeError(writeEnd.get(), {"SystemError", "setsid: text", 1, 67});
    writeEnd.release();
    std::vector<std::string> writes;
    char buffer[100];
    ssize_t count = 0;
    while ((count = ::read(readEnd.get(), buffer, sizeof(buffer))) > 0) {
        writes.emplace_back(buffer, static_cast<std::size_t>(count));
    }
    const std::vector<std::string> wanted = {"ET: ", "SystemError\0"s, "EM: ", "setsid: text\0"s,
                                             "EC: 1\0"s};
    EXPECT_EQ(wanted, writes);
}

TEST_F(ErrorRelayTest, NegativeDescriptorGetsNothingWritten) {
    errno = 0;
    writeError(-1, {"SystemError", "setsid", 1, 67});
    EXPECT_EQ(0, errno) << "a write was tried";
}

struct Received {
    const char* name;
    std::string bytes;
    std::string thrown;
    std::string output; // of the child, as echoed
};

const Received receivedTable[] = {
    {"nothing", "", "nothing", ""},
    {"system error", "ET: SystemError\0EM: execv: text\0EC: 2\0"s,
     "SystemError 2 execv: text: No such file or directory", ""},
    {"runtime error", "ET: std::runtime_error\0EM: no luck\0"s, "runtime_error no luck", ""},
    {"exception loses its message", "ET: std::exception\0EM: no sense\0"s,
     "exception std::exception", ""},
    {"unknown type", "ET: int\0EM: 17\0"s, "bad_exception", ""},
    {"empty type", "ET: \0EM: 17\0"s, "bad_exception", ""},
    {"empty message", "ET: std::runtime_error\0EM: \0"s, "runtime_error an error in child process",
     ""},
    {"no message", "ET: std::runtime_error\0"s, "runtime_error an error in child process", ""},
    {"message without a type is no error", "EM: no luck\0EC: 2\0"s, "nothing", ""},
    {"last record without its NUL", "ET: std::runtime_error\0EM: no luck"s, "runtime_error no luck",
     ""},
    {"order does not matter", "EC: 2\0EM: m\0ET: SystemError\0"s,
     "SystemError 2 m: No such file or directory", ""},
    {"negative code", "ET: SystemError\0EM: m\0EC: -1\0"s, "SystemError -1 m: Unknown error -1",
     ""},
    {"record without a tag is echoed", "hello\0"s, "nothing", "child output: hello\n"},
    {"tag in lower case is none", "et: SystemError\0"s, "nothing",
     "child output: et: SystemError\n"},
    {"record shorter than a tag", "ET:\0E\0"s, "nothing", "child output: ET:\nchild output: E\n"},
    {"empty record", "\0"s, "nothing", "child output: \n"},
    {"output beside an error", "one\0ET: std::runtime_error\0two\0EM: m\0three"s, "runtime_error m",
     "child output: one\nchild output: two\nchild output: three\n"},
};

TEST_F(ErrorRelayTest, RecordsAreInterpretedByTheirFirstFourBytes) {
    for (const Received& row : receivedTable) {
        SCOPED_TRACE(row.name);
        std::ostringstream output;
        ErrorReader reader(output);
        reader.feed(row.bytes.data(), row.bytes.size());
        reader.finish();
        EXPECT_EQ(row.thrown, thrownBy([&] { reader.throwIfFailed(); }));
        EXPECT_EQ(row.output, output.str());
    }
}

TEST_F(ErrorRelayTest, RecordSplitOverTwoReadsIsReassembledWhereverItIsSplit) {
    for (const Received& row : receivedTable) {
        for (std::size_t split = 0; split <= row.bytes.size(); ++split) {
            SCOPED_TRACE(row.name + (" split at " + std::to_string(split)));
            std::ostringstream output;
            ErrorReader reader(output);
            reader.feed(row.bytes.data(), split);
            reader.feed(row.bytes.data() + split, row.bytes.size() - split);
            reader.finish();
            EXPECT_EQ(row.thrown, thrownBy([&] { reader.throwIfFailed(); }));
            EXPECT_EQ(row.output, output.str());
        }
    }
}

TEST_F(ErrorRelayTest, MissingZeroOrUnreadableCodeMeansTheCurrentErrno) {
    for (const std::string& code : {""s, "EC: 0\0"s, "EC: \0"s, "EC: x\0"s, "EC: 99999999999\0"s}) {
        std::ostringstream output;
        ErrorReader reader(output);
        const std::string bytes = "ET: SystemError\0EM: m\0"s + code;
        reader.feed(bytes.data(), bytes.size());
        reader.finish();
        EXPECT_EQ(systemError("m", EXDEV), thrownBy([&] {
                      errno = EXDEV;
                      reader.throwIfFailed();
                  }))
            << code;
    }
}

TEST_F(ErrorRelayTest, WhatIsEncodedComesBackWithTheSystemTextTwice) {
    std::ostringstream output;
    ErrorReader reader(output);
    for (const std::string& piece :
         encodeError({"SystemError", SystemError("cwd chdir", EACCES).what(), EACCES, 67})) {
        reader.feed(piece.data(), piece.size());
    }
    reader.finish();
    EXPECT_EQ(relayedSystemError("cwd chdir", EACCES), thrownBy([&] { reader.throwIfFailed(); }));
    EXPECT_EQ("", output.str());
}

TEST_F(ErrorRelayTest, ChildOutputThatNobodyReadsEndsNothing) {
    EXPECT_EQ("still here", inSubprocess([](std::ostream& out) {
                  PipeEnds ends = openPipe("pipe");
                  ::dup2(ends.write.get(), 2);
                  ends.read.release();
                  ErrorReader reader(std::clog);
                  reader.feed("hello", 6);
                  out << "still here";
              }));
}

} // namespace
} // namespace torva::process

// The effects on the parent's streams of a child that fails before exec and ends with
// exit(3), which cleans up streams and runs exit handlers.
#include "torva/process/Launch.h"

#include "FailingSystemCall.h"
#include "ProcessFixture.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <iostream>
#include <sys/syscall.h>
#include <unistd.h>

namespace torva::process {
namespace {

using namespace testing;

class LaunchExitTest : public ProcessTest {};
class LaunchExitSystemCallTest : public FailingCallTest {};

// Launches a missing program, and waits for the child that failed.
void failToLaunch() {
    LaunchRequest request;
    request.program = "/does/not/exist";
    request.arguments = {"x"};
    pid_t pid = -1;
    thrownBy([&] { launch(request, &pid); });
    waitForExit(pid);
}

TEST_F(LaunchExitTest, BufferedOutputIsNotPrintedTwiceByAFailingChild) {
    char name[] = "/tmp/launch-test-XXXXXX";
    const Descriptor file(::mkstemp(name));
    ASSERT_TRUE(file);
    EXPECT_EQ("", inSubprocess([&](std::ostream&) {
                  ::dup2(file.get(), 1);
                  ::dup2(file.get(), 2);
                  std::fputs("stdout ", stdout);
                  std::FILE* const other = ::fdopen(::dup(file.get()), "w");
                  std::fputs("other ", other);
                  std::cout << "cout ";
                  std::clog << "clog ";
                  failToLaunch();
                  std::fflush(nullptr);
              }));
    ::lseek(file.get(), 0, SEEK_SET);
    const std::string text = readAll(file.get());
    for (const std::string word : {"stdout ", "other ", "cout ", "clog "}) {
        EXPECT_NE(std::string::npos, text.find(word)) << text;
        EXPECT_EQ(text.find(word), text.rfind(word)) << text;
    }
    ::unlink(name);
}

TEST_F(LaunchExitTest, OutputInBuffersThatStdioKnowsNothingOfIsNotPrintedTwiceEither) {
    EXPECT_EQ("text 0", inSubprocess([](std::ostream& out) {
                  for (std::ostream* const stream : {&std::cout, &std::cerr, &std::clog}) {
                      PipeEnds ends = openPipe("pipe");
                      ::dup2(ends.write.get(), stream == &std::cout ? 1 : 2);
                      std::ios::sync_with_stdio(false);
                      std::cerr.tie(nullptr); // else its flush is one of std::cout, too
                      *stream << std::nounitbuf << "text ";
                      failToLaunch();
                      stream->flush();
                      ends.write.release();
                      ::dup2(openNullDevice(O_WRONLY, "open").get(), stream == &std::cout ? 1 : 2);
                      const std::string text = readAll(ends.read.get());
                      if (text != "text ") {
                          out << text;
                          return;
                      }
                  }
                  out << "text 0";
              }));
}

TEST_F(LaunchExitTest, FailingChildEndsWithExitAndRunsItsExitHandlers) {
    PipeEnds ends = openPipe("pipe");
    EXPECT_EQ("", inSubprocess([&](std::ostream&) {
                  ::dup2(ends.write.get(), 2);
                  std::atexit([] { ::write(2, "handler", 7) == 7 ? void() : std::abort(); });
                  failToLaunch();
              }));
    ends.write.release();
    EXPECT_EQ("handler", readAll(ends.read.get()));
}

TEST_F(LaunchExitTest, NothingOfTheParentIsOpenToTheExitHandlersOfAFailingChild) {
    PipeEnds ends = openPipe("pipe");
    EXPECT_EQ("", inSubprocess([&](std::ostream&) {
                  ::dup2(ends.write.get(), 2);
                  ::dup2(ends.read.get(), 0);
                  std::atexit([] {
                      char target[64] = {};
                      ::readlink("/proc/self/fd/0", target, sizeof(target) - 1);
                      const std::string seen =
                          std::string(target) + " " + std::to_string(openDescriptors().size());
                      ::write(2, seen.data(), seen.size()) > 0 ? void() : std::abort();
                  });
                  failToLaunch();
              }));
    ends.write.release();
    EXPECT_EQ("/dev/null 3", readAll(ends.read.get()));
}

TEST_F(LaunchExitTest, StreamOfTheCallersOwnIsWrittenOnce) {
    char name[] = "/tmp/launch-test-XXXXXX";
    Descriptor file(::mkstemp(name));
    ASSERT_TRUE(file);
    EXPECT_EQ("", inSubprocess([&](std::ostream&) {
                  // Its buffer is separate: nobody flushes it before the fork, and the
                  // child would destroy it.
                  static std::ofstream stream(name, std::ios::app);
                  stream << "once";
                  failToLaunch();
                  stream.close();
              }));
    EXPECT_EQ("once", readAll(file.get()));
    ::unlink(name);
}

constexpr int lineCount = 5000;

// A file of so many numbered lines, removed already.
std::FILE* numberedLines() {
    std::FILE* const file = std::tmpfile();
    for (int line = 0; line < lineCount; ++line) {
        std::fprintf(file, "line %d\n", line);
    }
    std::rewind(file);
    return file;
}

// Reads line by line with a failing launch now and then, and answers how many lines came
// in their order, with what there was beside them.
std::string linesReadBetweenFailures(std::FILE* file) {
    int right = 0;
    int wrong = 0;
    char text[64];
    while (std::fgets(text, sizeof(text), file) != nullptr) {
        (text == "line " + std::to_string(right + wrong) + "\n" ? right : wrong) += 1;
        if ((right + wrong) % 250 == 1) {
            failToLaunch();
        }
    }
    return std::to_string(right) + " right, " + std::to_string(wrong) + " wrong";
}

TEST_F(LaunchExitTest, HalfReadFileOfTheCallerStaysWhereItIs) {
    EXPECT_EQ("5000 right, 0 wrong", inSubprocess([](std::ostream& out) {
                  out << linesReadBetweenFailures(numberedLines());
              }));
}

TEST_F(LaunchExitTest, HalfReadStandardInputOfTheCallerStaysWhereItIs) {
    EXPECT_EQ("5000 right, 0 wrong", inSubprocess([](std::ostream& out) {
                  ::dup2(::fileno(numberedLines()), STDIN_FILENO);
                  out << linesReadBetweenFailures(stdin);
              }));
}

TEST_F(LaunchExitSystemCallTest, HalfReadFileStaysWithoutCloseRangeToo) {
    EXPECT_EQ("5000 right, 0 wrong", inSubprocess([](std::ostream& out) {
                  failSystemCalls({{SYS_close_range, ENOSYS}});
                  out << linesReadBetweenFailures(numberedLines());
              }));
}

} // namespace
} // namespace torva::process

#include "torva/util/Traceback.h"

#include "torva/util/LibraryFaults.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <memory>
#include <pthread.h>
#include <sstream>
#include <vector>

using torva::Traceback;
using torva::test::libraryFaults;

namespace {

std::string printed(const Traceback& trace) {
    std::ostringstream text;
    trace.print(text);
    return text.str();
}

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::ptrdiff_t lineCount(const std::string& text) {
    return std::count(text.begin(), text.end(), '\n');
}

__attribute__((noinline)) std::uint32_t sizeAtDepth(int depth) {
    volatile std::uint32_t size = depth == 0 ? Traceback(0).size() : sizeAtDepth(depth - 1);
    return size;
}

class TracebackTest : public testing::Test {
protected:
    void TearDown() override { libraryFaults = {}; }
};

} // namespace

TEST_F(TracebackTest, CapturesAtMostElevenFrames) {
    EXPECT_GT(Traceback(0).size(), 0U);
    EXPECT_EQ(sizeAtDepth(30), 11U);
}

TEST_F(TracebackTest, ACountEqualToSkipPrintsNothing) {
    const std::uint32_t count = sizeAtDepth(0);
    ASSERT_LE(count, 11U);
    // The stack is deep enough here for the count not to depend on the caller.
    EXPECT_EQ(printed(Traceback(11)), "");
    EXPECT_EQ(printed(Traceback(12)), "");
    EXPECT_EQ(printed(Traceback(0xffffffffU)), "");
}

TEST_F(TracebackTest, PrintsALineForEachFrameButTheSkippedOnes) {
    for (const std::uint32_t skip : {0U, 1U, 5U, 10U}) {
        const Traceback trace(skip);
        ASSERT_GT(trace.size(), skip);
        const std::string text = printed(trace);
        EXPECT_EQ(text.rfind("Traceback:\n\t", 0), 0U) << text;
        EXPECT_EQ(lineCount(text), 1 + static_cast<std::ptrdiff_t>(trace.size() - skip)) << text;
        for (const std::string& line : linesOf(text.substr(text.find('\n') + 1))) {
            EXPECT_EQ(line.front(), '\t') << text;
            EXPECT_NE(line.find("[0x"), std::string::npos) << text;
            EXPECT_EQ(line.back(), ']') << text;
        }
    }
}

TEST_F(TracebackTest, SymbolLines) {
    const struct {
        const char* symbol;
        const char* wanted;
    } cases[] = {
        {"prog(_ZN5torva3fooEi+0x12) [0x400]", "prog(torva::foo(int)+0x12) [0x400]"},
        {"/usr/lib/libstdc++.so.6(_ZSt9terminatev+0x1) [0x1]",
         "/usr/lib/libstdc++.so.6(std::terminate()+0x1) [0x1]"},
        {"prog(main+0x85) [0x2]", "prog(main+0x85) [0x2]"},
        {"prog(+0x12ab) [0x3]", "prog(+0x12ab) [0x3]"},
        {"prog() [0x4]", "prog() [0x4]"},
        {"prog [0x5]", "prog [0x5]"},
        {"pr+og(_ZN5torva3fooEi) [0x6]", "pr+og(_ZN5torva3fooEi) [0x6]"},
        {"[0x7]", "[0x7]"},
        {"", ""},
    };
    for (const auto& c : cases) {
        libraryFaults.symbols = {"first", c.symbol, "last"};
        const Traceback trace(1);
        const std::string text = printed(trace);
        EXPECT_EQ(text.substr(0, text.find("\tlast")),
                  std::string("Traceback:\n\t") + c.wanted + "\n");
    }
}

TEST_F(TracebackTest, ANameThatCannotBeDemangledStaysAsItIs) {
    libraryFaults.symbols = {"prog(_ZN5torva3fooEi+0x12) [0x400]"};
    libraryFaults.demanglerFails = true;
    const Traceback trace(0);
    EXPECT_EQ(printed(trace).rfind("Traceback:\n\tprog(_ZN5torva3fooEi+0x12) [0x400]\n", 0), 0U);
}

TEST_F(TracebackTest, WithoutSymbolsTheAddressesArePrinted) {
    libraryFaults.symbolsFail = true;
    const Traceback trace(2);
    const std::string text = printed(trace);
    EXPECT_EQ(lineCount(text), 1 + static_cast<std::ptrdiff_t>(trace.size() - 2));
    const auto lines = linesOf(text);
    EXPECT_EQ(lines.front(), "Traceback addresses:");
    for (std::size_t i = 1; i < lines.size(); ++i) {
        EXPECT_EQ(lines[i].substr(0, 3), "\t0x") << text;
        EXPECT_EQ(lines[i].find_first_not_of("0123456789abcdef", 3), std::string::npos) << text;
    }
}

TEST_F(TracebackTest, SymbolsAreMadeByTheFirstPrintAndKept) {
    libraryFaults = {};
    const Traceback trace(0);
    EXPECT_EQ(libraryFaults.symbolsCalls, 0);
    const std::string first = printed(trace);
    EXPECT_EQ(printed(trace), first);
    EXPECT_EQ(libraryFaults.symbolsCalls, 1);
}

TEST_F(TracebackTest, SymbolsThatCouldNotBeMadeAreTriedAgain) {
    const Traceback trace(0);
    libraryFaults.symbolsFail = true;
    EXPECT_EQ(printed(trace).rfind("Traceback addresses:", 0), 0U);
    libraryFaults.symbolsFail = false;
    EXPECT_EQ(printed(trace).rfind("Traceback:", 0), 0U);
}

/// One with few frames.
std::unique_ptr<Traceback> takenInThread() {
    void* taken = nullptr;
    pthread_t thread = {};
    ::pthread_create(
        &thread, nullptr, [](void*) -> void* { return new Traceback(0); }, nullptr);
    ::pthread_join(thread, &taken);
    return std::unique_ptr<Traceback>(static_cast<Traceback*>(taken));
}

TEST_F(TracebackTest, ACopyPrintsTheSameAfterTheOriginalIsGone) {
    auto original = std::make_unique<Traceback>(1);
    const std::string text = printed(*original);
    const Traceback copy(*original);
    const std::unique_ptr<Traceback> assigned = takenInThread();
    ASSERT_LT(lineCount(printed(*assigned)), lineCount(text));
    *assigned = *original;
    Traceback& itself = *assigned;
    *assigned = itself;
    original.reset();
    EXPECT_EQ(printed(copy), text);
    EXPECT_EQ(printed(*assigned), text);
}

#include "torva/libc/panel_conf_parse.h"

#include "support/AllocationFaults.h"
#include "torva/libc/Child.h"
#include "torva/libc/log.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <sys/resource.h>
#include <utility>
#include <vector>

using torva::test::inChild;

namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

std::string reports;

void collect(int priority, const char* format, ...) {
    char text[200000];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    reports += std::to_string(priority) + ": " + text + "|";
    errno = EDOM; // a hook need not keep it
}

class PanelConfParseTest : public testing::Test {
protected:
    void SetUp() override {
        reports.clear();
        torva_log = collect;
    }
    void TearDown() override { torva_log = previousHook_; }

    /// The parsed file, kept until the next call.
    const panel_conf_file* parse(const std::string& text) {
        FILE* stream = std::tmpfile();
        std::fwrite(text.data(), 1, text.size(), stream);
        std::rewind(stream);
        file.reset(panel_conf_parse(stream));
        std::fclose(stream);
        return file.get();
    }

    Pairs pairs() const {
        Pairs found;
        for (std::size_t i = 0; file != nullptr && i < file->count; ++i) {
            found.emplace_back(file->pairs[i].name, file->pairs[i].value);
        }
        return found;
    }

    std::unique_ptr<panel_conf_file, decltype(&panel_conf_free)> file{nullptr, &panel_conf_free};

private:
    decltype(torva_log) previousHook_ = torva_log;
};

std::string spaceExpected(const std::string& line) {
    return "12: Invalid variable definition " + line + "\nExpected a space after variable name\n|";
}

std::string valueExpected(const std::string& line) {
    return "12: Invalid variable definition " + line + "\nExpected a value|";
}

} // namespace

TEST_F(PanelConfParseTest, Lines) {
    using namespace std::string_literals;
    const std::string longText(150000, 'v');
    const struct {
        const char* name;
        std::string text;
        Pairs wanted;
        std::string reports;
    } cases[] = {
        {"empty file", "", {}, ""},
        {"blank lines and comments", "\n   \n\t\r\n#c\n  # A b\n#\n", {}, ""},
        {"one pair", "A b\n", {{"A", "b"}}, ""},
        {"missing final line feed", "A b", {{"A", "b"}}, ""},
        {"value without its blanks and comment",
         "PRODUCT_ROOT_D   /opt/panel   # where the panel is\n",
         {{"PRODUCT_ROOT_D", "/opt/panel"}},
         ""},
        {"comment directly after the value", "A b#c\n", {{"A", "b"}}, ""},
        {"blanks within the value", " \tA\t b  c \t\n", {{"A", "b  c"}}, ""},
        {"every kind of white space", "\v\f A\v\fb\f\v\n", {{"A", "b"}}, ""},
        {"CR LF", "A b\r\nB c\r\n", {{"A", "b"}, {"B", "c"}}, ""},
        {"letters, digits and underscores", "_a1Z_ x\n1 y\n", {{"_a1Z_", "x"}, {"1", "y"}}, ""},
        {"quotes are part of the value", "A \"b\"\n", {{"A", "\"b\""}}, ""},
        {"an equals sign can begin a value", "A = b\n", {{"A", "= b"}}, ""},
        {"last definition wins, in the place of the first",
         "A 1\nB 2\nA 3\nC 4\nA 5\n",
         {{"A", "5"}, {"B", "2"}, {"C", "4"}},
         ""},
        {"names that begin alike",
         "AB 1\nA 2\nABC 3\n",
         {{"AB", "1"}, {"A", "2"}, {"ABC", "3"}},
         ""},
        {"equals sign after the name",
         "PRODUCT_ROOT_D=/x\n",
         {},
         spaceExpected("PRODUCT_ROOT_D=/x")},
        {"comment sign after the name", "A#b\n", {}, spaceExpected("A#b")},
        {"no name", "  =b c\n", {}, spaceExpected("=b c")},
        {"byte outside ASCII in the name", "\xc3\x84 b\n", {}, spaceExpected("\xc3\x84 b")},
        {"name alone", "  A\n", {}, valueExpected("A")},
        {"name alone at the end of the file", "A", {}, valueExpected("A")},
        {"name and blanks", "A  \t\n", {}, valueExpected("A  \t")},
        {"name and comment", "A  # b\n", {}, valueExpected("A  # b")},
        {"name alone, CR LF", "A\r\n", {}, valueExpected("A\r")},
        {"the rest is read after a malformed line",
         "A=1\nB\nC 2\n",
         {{"C", "2"}},
         spaceExpected("A=1") + valueExpected("B")},
        {"a line ends at its first NUL",
         "A b\0c\nB\0 c\n\0\nC d\n"s,
         {{"A", "b"}, {"C", "d"}},
         valueExpected("B")},
        {"a report has the bytes of the line", "%s%n=\n", {}, spaceExpected("%s%n=")},
        {"long value", "A " + longText + "\nB c\n", {{"A", longText}, {"B", "c"}}, ""},
        {"long name", longText + " a\n", {{longText, "a"}}, ""},
        {"long malformed line", longText + "\n", {}, valueExpected(longText)},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        reports.clear();
        EXPECT_NE(parse(c.text), nullptr);
        EXPECT_EQ(pairs(), c.wanted);
        EXPECT_EQ(reports, c.reports);
    }
}

TEST_F(PanelConfParseTest, AnEmptyFileIsSortedAndHasRoomForTwentyPairs) {
    ASSERT_NE(parse(""), nullptr);
    EXPECT_EQ(file->count, 0U);
    EXPECT_EQ(file->capacity, 20U);
    EXPECT_EQ(file->sorted, 1);
    EXPECT_EQ(panel_conf_find(file.get(), "A"), nullptr);
}

TEST_F(PanelConfParseTest, TheFirstNewNameClearsSortedForGood) {
    ASSERT_NE(parse("A 1\n"), nullptr);
    EXPECT_EQ(file->sorted, 0);
    ASSERT_NE(parse("A\nB=\n"), nullptr);
    EXPECT_EQ(file->sorted, 1) << "malformed lines add nothing";
}

TEST_F(PanelConfParseTest, TheArrayGrowsToTwiceItsSizeAndKeepsItsPairs) {
    for (const std::size_t count : {20U, 21U, 40U, 41U, 81U}) {
        std::string text;
        Pairs wanted;
        for (std::size_t i = 0; i < count; ++i) {
            // Not in the order of the alphabet.
            wanted.emplace_back("N" + std::to_string((i * 37) % 101), "v" + std::to_string(i));
            text += wanted.back().first + " " + wanted.back().second + "\n";
        }
        ASSERT_NE(parse(text), nullptr);
        EXPECT_EQ(pairs(), wanted);
        EXPECT_EQ(file->capacity, count <= 20 ? 20U : count <= 40 ? 40U : count <= 80 ? 80U : 160U);
        for (const auto& pair : wanted) {
            EXPECT_STREQ(panel_conf_find(file.get(), pair.first.c_str()), pair.second.c_str());
        }
        EXPECT_EQ(panel_conf_find(file.get(), "N"), nullptr);
        EXPECT_EQ(panel_conf_find(file.get(), ""), nullptr);
    }
}

TEST_F(PanelConfParseTest, ASmallArrayGrowsByTwentyPairs) {
    panel_conf_pair* pairs = static_cast<panel_conf_pair*>(std::calloc(1, sizeof(*pairs)));
    panel_conf_file small = {pairs, 0, 1, 1};
    ASSERT_EQ(panel_conf_put(&small, "B", 1, "1", 1), 0);
    EXPECT_EQ(small.capacity, 1U);
    ASSERT_EQ(panel_conf_put(&small, "A", 1, "2", 1), 0);
    EXPECT_EQ(small.capacity, 21U);
    EXPECT_STREQ(panel_conf_find(&small, "B"), "1");
    EXPECT_STREQ(panel_conf_find(&small, "A"), "2");
    for (std::size_t i = 0; i < small.count; ++i) {
        std::free(small.pairs[i].name);
        std::free(small.pairs[i].value);
    }
    std::free(small.pairs);
}

TEST_F(PanelConfParseTest, WhileSortedTheSearchHalvesThePairs) {
    std::vector<std::string> names = {"A", "AB", "B", "C", "CC", "D", "E"};
    std::vector<panel_conf_pair> pairs;
    pairs.reserve(names.size());
    for (std::string& name : names) {
        pairs.push_back({name.data(), name.data()});
    }
    panel_conf_file sorted = {pairs.data(), pairs.size(), pairs.size(), 1};
    for (const std::string& name : names) {
        EXPECT_STREQ(panel_conf_find(&sorted, name.c_str()), name.c_str());
    }
    for (const char* missing : {"", "0", "AA", "ABC", "BB", "F"}) {
        EXPECT_EQ(panel_conf_find(&sorted, missing), nullptr) << missing;
    }
    // Names out of order are not found by halving, but are one by one.
    std::swap(pairs.front(), pairs.back());
    EXPECT_EQ(panel_conf_find(&sorted, "A"), nullptr);
    sorted.sorted = 0;
    EXPECT_STREQ(panel_conf_find(&sorted, "A"), "A");
}

TEST_F(PanelConfParseTest, AFailedReadDiscardsEverythingAndKeepsErrno) {
    FILE* directory = std::fopen("/", "r");
    ASSERT_NE(directory, nullptr);
    EXPECT_EQ(panel_conf_parse(directory), nullptr);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(reports, "12: Unable to read configuration file: Is a directory|");
    std::fclose(directory);
}

namespace {

/// A stream of "A 1\nB 2" and a read error after it.
ssize_t readThenFail(void* cookie, char* buffer, std::size_t) {
    int& calls = *static_cast<int*>(cookie);
    if (++calls > 1) {
        errno = EIO;
        return -1;
    }
    const std::string text = "A 1\nB 2";
    return static_cast<ssize_t>(text.copy(buffer, text.size()));
}

} // namespace

TEST_F(PanelConfParseTest, AReadThatFailsWithinALineDoesNotPassForItsEnd) {
    int calls = 0;
    FILE* stream = fopencookie(&calls, "r", {readThenFail, nullptr, nullptr, nullptr});
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(panel_conf_parse(stream), nullptr);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(reports, "12: Unable to read configuration file: Input/output error|");
    EXPECT_EQ(calls, 2) << "the failure ends the reading";
    std::fclose(stream);
}

TEST_F(PanelConfParseTest, ReleasingNothingIsAllowed) {
    errno = ERANGE;
    panel_conf_free(nullptr);
    EXPECT_EQ(errno, ERANGE);
}

namespace {

// Memory failures are tested in children with a limit; their reports are written
// without allocating memory.
void writeOut(int priority, const char* format, ...) {
    dprintf(STDERR_FILENO, "%d: ", priority);
    va_list arguments;
    va_start(arguments, format);
    vdprintf(STDERR_FILENO, format, arguments);
    va_end(arguments);
    errno = EDOM;
}

const std::size_t tooMuch = std::size_t{64} << 20;

torva::test::Outcome withoutMemory(const std::function<int()>& body) {
    return inChild([&] {
        torva_log = writeOut;
        const rlimit none = {0, 0};
        ::setrlimit(RLIMIT_AS, &none);
        return body();
    });
}

} // namespace

#define SKIP_UNDER_ASAN()                                                                          \
    if (TORVA_TEST_ASAN != 0) {                                                                    \
        GTEST_SKIP() << "the sanitizer's allocator does not keep to RLIMIT_AS";                    \
    }                                                                                              \
    static_assert(true)

TEST(PanelConfMemoryTest, ReasonIsKeptWhateverMemoryMakesOfErrno) {
    if (!torva::test::allocation_faults_work) {
        GTEST_SKIP() << torva::test::no_allocation_faults;
    }
    using torva::test::AllocationFaults;
    const std::string name(400, 'n');
    FILE* directory = std::fopen("/", "r");
    ASSERT_NE(directory, nullptr);
    const auto usual = torva_log;
    torva_log = writeOut;
    {
        const torva::test::DisturbedErrno disturbed(EXDEV);
        EXPECT_EQ(panel_conf_parse(directory), nullptr);
        EXPECT_EQ(errno, EISDIR);
        panel_conf_file* file = panel_conf_new();
        panel_conf_put(file, "A", 1, "1", 1);
        {
            const AllocationFaults no_copy_of_the_name(401, 401);
            EXPECT_EQ(panel_conf_put(file, name.data(), name.size(), "1", 1), -1);
            EXPECT_EQ(errno, ENOMEM);
        }
        errno = ERANGE;
        panel_conf_free(file);
        EXPECT_EQ(errno, ERANGE);
        const AllocationFaults no_pairs(20 * sizeof(panel_conf_pair), 20 * sizeof(panel_conf_pair));
        EXPECT_EQ(panel_conf_new(), nullptr);
        EXPECT_EQ(errno, ENOMEM);
    }
    torva_log = usual;
    std::fclose(directory);
}

TEST(PanelConfMemoryTest, LackOfMemoryForTheHolder) {
    SKIP_UNDER_ASAN();
    const auto outcome = withoutMemory([] {
        torva::test::exhaustMemory();
        return panel_conf_new() == nullptr && errno == ENOMEM ? 0 : 1;
    });
    EXPECT_EQ(outcome.exited, 0);
    EXPECT_EQ(outcome.err,
              "12: Not enough memory to allocate Torva runtime configuration structure\n");
}

TEST(PanelConfMemoryTest, LackOfMemoryForThePairsLeavesTheFileAsItWas) {
    SKIP_UNDER_ASAN();
    char name[] = "A";
    const std::size_t count = tooMuch / sizeof(panel_conf_pair);
    const std::unique_ptr<panel_conf_pair, decltype(&std::free)> memory(
        static_cast<panel_conf_pair*>(std::malloc(count * sizeof(panel_conf_pair))), &std::free);
    panel_conf_pair* const pairs = memory.get();
    ASSERT_NE(pairs, nullptr);
    std::fill(pairs, pairs + count, panel_conf_pair{name, name});
    const auto outcome = withoutMemory([&] {
        panel_conf_file file = {pairs, count, count, 1};
        if (panel_conf_put(&file, "B", 1, "1", 1) != -1 || errno != ENOMEM) {
            return 1;
        }
        return file.pairs == pairs && file.count == count && file.capacity == count ? 0 : 2;
    });
    EXPECT_EQ(outcome.exited, 0);
    EXPECT_EQ(outcome.err, "12: Unable to read configuration: Cannot allocate memory");
}

TEST(PanelConfMemoryTest, LackOfMemoryForACopyLeavesTheFileAsItWas) {
    SKIP_UNDER_ASAN();
    const std::string text(tooMuch, 'x');
    const struct {
        const char* what;
        std::size_t nameSize;
        std::size_t valueSize;
    } cases[] = {{"value of a new name", 1, tooMuch}, {"name", tooMuch, 1}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const auto outcome = withoutMemory([&] {
            panel_conf_file* file = panel_conf_new();
            if (panel_conf_put(file, text.data(), c.nameSize, text.data(), c.valueSize) != -1) {
                return 1;
            }
            return errno == ENOMEM && file->count == 0 && file->sorted == 1 ? 0 : 2;
        });
        EXPECT_EQ(outcome.exited, 0);
        EXPECT_EQ(outcome.err, "12: Unable to form configuration: Cannot allocate memory");
    }
}

TEST(PanelConfMemoryTest, LackOfMemoryForAnotherValueKeepsTheOldOne) {
    SKIP_UNDER_ASAN();
    const std::string text(tooMuch, 'x');
    const auto outcome = withoutMemory([&] {
        panel_conf_file* file = panel_conf_new();
        panel_conf_put(file, "A", 1, "old", 3);
        if (panel_conf_put(file, "A", 1, text.data(), text.size()) != -1 || errno != ENOMEM) {
            return 1;
        }
        return std::strcmp(panel_conf_find(file, "A"), "old") == 0 ? 0 : 2;
    });
    EXPECT_EQ(outcome.exited, 0);
    EXPECT_EQ(outcome.err, "12: Unable to form configuration: Cannot allocate memory");
}

TEST(PanelConfMemoryTest, LackOfMemoryForALineIsAFailedRead) {
    SKIP_UNDER_ASAN();
    FILE* stream = std::tmpfile();
    const std::string text = "A " + std::string(tooMuch, 'x');
    std::fwrite(text.data(), 1, text.size(), stream);
    std::rewind(stream);
    const auto outcome = withoutMemory(
        [&] { return panel_conf_parse(stream) == nullptr && errno == ENOMEM ? 0 : 1; });
    std::fclose(stream);
    EXPECT_EQ(outcome.exited, 0);
    EXPECT_EQ(outcome.err, "12: Unable to read configuration file: Cannot allocate memory");
}

// The grammar against the oracle of LineOracle.h, over texts made of pieces that
// are likely to cause trouble. The seed is fixed: a failure is repeated in every run.
#include "torva/postfix/mastercf/MasterCfParser.h"

#include "LineOracle.h"
#include "SampleMasterCf.h"
#include "Support.h"
#include "support/Sanitizer.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

namespace torva::mail::postfix::testing {
namespace {

class Random {
public:
    std::size_t below(std::size_t limit) { return engine_() % limit; }
    bool once(std::size_t in) { return below(in) == 0; }
    template <class Pieces>
    std::string oneOf(const Pieces& pieces) {
        return std::data(pieces)[below(std::size(pieces))];
    }

private:
    std::mt19937 engine_{20240229};
};

const char* const names[] = {"smtp", "a", "127.0.0.1:10025", "-x_", "yn", "b7", "inet"};
const char* const typeWords[] = {"inet", "unix", "fifo"};
const char* const flags[] = {"y", "n", "-"};
const char* const numbers[] = {"-", "0", "60", "1000", "4294967295", "2147483648"};
const char* const wordPieces[] = {"smtpd", "-o", "a=b", "$x", "!", "[]", "?", "7", "-", "y"};
const char* const blankRuns[] = {" ", "  ", "\t", " \r", "\r", "   \t "};
const char* const commentLines[] = {"#", "# text", "## smtp inet n - n - - x", "#\x80\xFF", "#\r"};
const char* const troubles[] = {"#", "\x80", "SMTP", "\v", "\x7F",      "4294967296",
                                "?", "\n",   " ",    "_",  "unix-dgram"};

std::string blankLines(Random& random) {
    std::string text;
    while (random.once(2)) {
        text += "\n";
        text += random.once(2) ? random.oneOf(blankRuns) : "";
        text += random.once(2) ? random.oneOf(commentLines) : "";
    }
    return text;
}

/// What may separate two fields, mostly just blanks.
std::string separator(Random& random) {
    if (!random.once(6)) {
        return random.oneOf(blankRuns);
    }
    std::string text = random.once(2) ? random.oneOf(blankRuns) : "";
    text += random.once(2) ? random.oneOf(commentLines) : "";
    return text + blankLines(random) + "\n" + random.oneOf(blankRuns);
}

std::string service(Random& random) {
    std::string text = random.oneOf(names) + separator(random) + random.oneOf(typeWords);
    const auto field = [&](const std::string& value) {
        text += (random.once(12) ? "" : separator(random)) + value;
    };
    for (int i = 0; i < 3; ++i) {
        field(random.oneOf(flags));
    }
    std::string wakeup = random.oneOf(numbers);
    if (wakeup != "-" && random.once(3)) {
        wakeup += "?";
    }
    field(wakeup);
    field(random.oneOf(numbers));
    do {
        field(random.oneOf(wordPieces));
    } while (random.below(3) != 0);
    return text + (random.once(4) ? random.oneOf(blankRuns) : "");
}

std::string line(Random& random) {
    switch (random.below(4)) {
    case 0:
        return (random.once(2) ? random.oneOf(blankRuns) : "") + random.oneOf(commentLines);
    case 1:
        return random.once(2) ? random.oneOf(blankRuns) : "";
    default:
        return service(random);
    }
}

std::string fileOf(Random& random) {
    std::string text = line(random);
    for (std::size_t more = random.below(6); more > 0; --more) {
        text += "\n" + line(random);
    }
    return text + (random.once(2) ? "\n" : "");
}

/// Cuts a piece out of a text, or puts one of the troublesome ones into it.
std::string damaged(Random& random, std::string text) {
    const std::size_t at = random.below(text.size() + 1);
    if (random.once(2)) {
        return text.erase(at, 1 + random.below(3));
    }
    return text.insert(at, random.oneOf(troubles));
}

/// The lines with equal services joined: the later text in the earlier place.
struct Expected {
    std::vector<std::string> lines;
    std::map<MasterCfLines::Key, std::string> services;
};

Expected joined(const OracleVerdict& verdict) {
    Expected expected;
    std::map<MasterCfLines::Key, std::size_t> places;
    for (const OracleLine& oracle : verdict.lines) {
        if (oracle.isService) {
            const MasterCfLines::Key key(oracle.service.name,
                                         static_cast<ModuleType>(oracle.service.type));
            expected.services[key] = oracle.service.description;
            const auto known = places.find(key);
            if (known != places.end()) {
                expected.lines[known->second] = oracle.text;
                continue;
            }
            places[key] = expected.lines.size();
        }
        expected.lines.push_back(oracle.text);
    }
    return expected;
}

/// \return whether both accept the text
bool compare(const std::string& text) {
    SCOPED_TRACE(::testing::PrintToString(text));
    const OracleVerdict verdict = judge(text);
    MasterCfLines lines;
    const bool accepted = parseText(text, lines);
    EXPECT_EQ(accepted, verdict.accepted);
    if (!accepted || !verdict.accepted) {
        return false;
    }
    const Expected expected = joined(verdict);
    EXPECT_EQ(linesOf(lines), expected.lines);
    for (const auto& [key, description] : expected.services) {
        EXPECT_TRUE(lines.contains(key)) << key.first;
        EXPECT_EQ(describe(lines.record(key)), description);
        EXPECT_TRUE(lines.remove(key));
    }
    for (const std::string& rest : lines.lines()) {
        EXPECT_TRUE(rest.find_first_not_of(" \t\r") == std::string::npos ||
                    rest[rest.find_first_not_of(" \t\r")] == '#')
            << "left over: " << rest;
    }
    return true;
}

// Fewer where each takes five times as long.
constexpr int rounds = TORVA_TEST_ASAN ? 1500 : 5000;
constexpr std::size_t step = TORVA_TEST_ASAN ? 3 : 1;

TEST(MasterCfParserRandomTest, WellFormedTextsAreReadAsByHand) {
    Random random;
    int accepted = 0;
    for (int i = 0; i < rounds && !::testing::Test::HasFailure(); ++i) {
        accepted += compare(fileOf(random)) ? 1 : 0;
    }
    // An empty separator may run two numbers together: not all are accepted.
    EXPECT_GT(accepted, rounds * 3 / 4);
}

TEST(MasterCfParserRandomTest, DamagedTextsAreAcceptedOrRefusedAsByHand) {
    Random random;
    int accepted = 0;
    for (int i = 0; i < rounds && !::testing::Test::HasFailure(); ++i) {
        accepted += compare(damaged(random, fileOf(random))) ? 1 : 0;
    }
    EXPECT_GT(accepted, rounds / 5);
    EXPECT_LT(accepted, rounds * 4 / 5);
}

TEST(MasterCfParserRandomTest, EveryTruncationOfAnInstalledFileIsJudgedAsByHand) {
    const std::string whole = sampleMasterCf;
    for (std::size_t size = 0; size <= whole.size() && !::testing::Test::HasFailure();
         size += step) {
        compare(whole.substr(0, size));
    }
}

TEST(MasterCfParserRandomTest, EveryByteOfAnInstalledFileMayBeMissing) {
    const std::string whole = sampleMasterCf;
    for (std::size_t at = 0; at < whole.size() && !::testing::Test::HasFailure(); at += step) {
        std::string text = whole;
        compare(text.erase(at, 1));
    }
}

TEST(MasterCfParserRandomTest, AcceptedTextsAreGivenBackByTheirLines) {
    Random random;
    for (int i = 0; i < rounds; ++i) {
        const std::string text = fileOf(random);
        const OracleVerdict verdict = judge(text);
        MasterCfLines lines;
        if (!parseText(text, lines) || lines.lines().size() != verdict.lines.size()) {
            continue; // refused, or a service is in it twice
        }
        std::string back;
        for (const std::string& each : lines.lines()) {
            back += each + "\n";
        }
        ASSERT_EQ(back, text + "\n");
    }
}

} // namespace
} // namespace torva::mail::postfix::testing

#include "torva/postfix/tables/ListingFilter.h"

#include "support/CapturedClog.h"
#include "support/Sanitizer.h"
#include "torva/postfix/tables/DataStreamFilter.h"
#include "torva/postfix/tables/NotInDomainFilter.h"

#include <gtest/gtest.h>

#include <sstream>

using namespace torva::mail::postfix::database;

namespace {

// ---- one text and a domain

struct DomainCase {
    const char* name;
    const char* text;
    bool outside;               ///< without subdomains
    bool outsideWithSubdomains; ///< with them
};

void PrintTo(const DomainCase& tested, std::ostream* out) {
    *out << tested.name;
}

class NotInDomainFilterTest : public testing::TestWithParam<DomainCase> {};

TEST_P(NotInDomainFilterTest, ExampleCom) {
    const DomainCase& tested = GetParam();
    EXPECT_EQ(NotInDomainFilter("example.com", false)(tested.text), tested.outside);
    EXPECT_EQ(NotInDomainFilter("example.com", true)(tested.text), tested.outsideWithSubdomains);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, NotInDomainFilterTest,
    testing::Values(DomainCase{"DomainItselfIsInside", "example.com", false, false},
                    DomainCase{"AddressOfTheDomainIsInside", "user@example.com", false, false},
                    DomainCase{"EmptyLocalPartIsInside", "@example.com", false, false},
                    DomainCase{"LongerNameWithTheSameEndIsOutside", "otherexample.com", true, true},
                    DomainCase{"SubdomainIsInsideOnlyWithTheFlag", "mail.example.com", true, false},
                    DomainCase{"AddressOfASubdomainIsInsideOnlyWithTheFlag",
                               "user@mail.example.com", true, false},
                    DomainCase{"UpperCaseIsOutside", "user@EXAMPLE.COM", true, true},
                    DomainCase{"OneUpperCaseLetterIsOutside", "user@Example.com", true, true},
                    DomainCase{"TextThatRunsOutFirstIsOutside", "ple.com", true, true},
                    DomainCase{"EmptyTextIsOutside", "", true, true},
                    DomainCase{"DomainInTheMiddleIsOutside", "example.com.net", true, true}),
    [](const auto& tested) { return std::string(tested.param.name); });

// ---- one value

using ValueFilter = ValueListFilter<NotInDomainFilter>;

struct ValueCase {
    const char* name;
    const char* value;
    bool kept;
    const char* wanted;
};

void PrintTo(const ValueCase& tested, std::ostream* out) {
    *out << tested.name;
}

class ValueListFilterTest : public testing::TestWithParam<ValueCase> {};

TEST_P(ValueListFilterTest, KeepsWhatLiesOutside) {
    std::string value = GetParam().value;
    EXPECT_EQ(ValueFilter(NotInDomainFilter("d.net", false))(value), GetParam().kept);
    if (GetParam().kept) {
        EXPECT_EQ(value, GetParam().wanted);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Values, ValueListFilterTest,
    testing::Values(ValueCase{"OnlyTheOtherAddressStays", "a@d.net, b@e.net", true, "b@e.net"},
                    ValueCase{"SurvivorsAreJoinedInTheirOrder",
                              "x@e.net\ta@d.net,,y@f.net  z@g.net", true,
                              "x@e.net, y@f.net, z@g.net"},
                    ValueCase{"NothingDroppedLeavesTheValueToTheByte", ",a@e.net,\t b@f.net ,",
                              true, ",a@e.net,\t b@f.net ,"},
                    ValueCase{"EverythingDropped", "a@d.net, d.net", false, ""},
                    ValueCase{"NoElementAtAll", " , ", false, ""},
                    ValueCase{"EmptyValue", "", false, ""},
                    ValueCase{"EmptyElementsAreNoElements", ",a@d.net,,b@e.net,", true, "b@e.net"}),
    [](const auto& tested) { return std::string(tested.param.name); });

TEST(ListSeparatorTest, IsCommaOrWhiteSpace) {
    for (int c = 0; c < 256; ++c) {
        const bool wanted = c == ',' || c == ' ' || (c >= '\t' && c <= '\r');
        EXPECT_EQ(ValueFilter::isListSep(static_cast<char>(c)), wanted) << c;
    }
}

// ---- lines and chunks

using Chain = DataStreamFilter<ElementsFilter<NotInDomainFilter>>;

/// The output of the chain for the text, in chunks of this size.
std::string filtered(const std::string& text, std::size_t chunkSize) {
    std::ostringstream out;
    Chain chain(out, ElementsFilter<NotInDomainFilter>(NotInDomainFilter("d.net", false)));
    for (std::size_t at = 0; at < text.size(); at += chunkSize) {
        const std::string chunk = text.substr(at, chunkSize);
        chain(std::vector<char>(chunk.begin(), chunk.end()));
    }
    return out.str();
}

const char listing[] = "postmaster@d.net root@e.net\n"
                       "user@e.net\tuser@d.net, user@f.net\n"
                       "user@f.net   other@f.net  \n"
                       "d.net 1\n"
                       "gone@g.net a@d.net b@d.net\n"
                       "onlykey \t\n"
                       " emptykey@g.net\n"
                       "lonelykey\n"
                       "last@e.net x@d.net\ty@e.net\tz@f.net\n"
                       "unfinished@e.net value";

const char survivors[] = "user@e.net\tuser@f.net\n"
                         "user@f.net   other@f.net  \n"
                         " emptykey@g.net\n"
                         "last@e.net y@e.net, z@f.net\n";

class DataStreamFilterTest : public testing::Test {
protected:
    torva::test::CapturedClog log_;
};

TEST_F(DataStreamFilterTest, EveryChunkSizeGivesTheSameLines) {
    for (std::size_t size = 1; size <= sizeof(listing); ++size) {
        EXPECT_EQ(filtered(listing, size), survivors) << "chunks of " << size;
    }
}

TEST_F(DataStreamFilterTest, LineWithoutAValueIsLoggedWithALineEnd) {
    filtered("lonelykey\n", 100);
    EXPECT_EQ(log_.str(), "invalid key/value 'lonelykey'\n");
}

TEST_F(DataStreamFilterTest, FinishedLinesAreThereWhenTheCallReturns) {
    std::ostringstream out;
    Chain chain(out, ElementsFilter<NotInDomainFilter>(NotInDomainFilter("d.net", false)));
    const std::string first = "a b\nc ";
    chain(std::vector<char>(first.begin(), first.end()));
    EXPECT_EQ(out.str(), "a b\n");
    chain({'d', '\n'});
    EXPECT_EQ(out.str(), "a b\nc d\n");
}

TEST_F(DataStreamFilterTest, ManyChunksOfOneByteGiveTheLinesOfOneChunk) {
    constexpr std::size_t many = TORVA_TEST_ASAN ? 100000 : 1000000;
    std::string text;
    std::string wanted;
    for (int i = 0; text.size() < many; ++i) {
        const std::string number = std::to_string(i);
        text += "k" + number + "@e.net a" + number + "@d.net, b" + number + "@e.net\n";
        wanted += "k" + number + "@e.net b" + number + "@e.net\n";
    }
    EXPECT_TRUE(filtered(text, text.size()) == wanted);
    EXPECT_TRUE(filtered(text, 1) == wanted);
}

// ---- quoted keys

TEST(QuotedKeyTest, LineStaysToTheByteAndIsToldOnTheLog) {
    for (const std::string text : {"\"john doe\"@example.org a@example.com",
                                   "\"a\"@example.com  x@example.com,  ", "\"lonely\"", "\""}) {
        const torva::test::CapturedClog log;
        std::string line = text;
        const ElementsFilter<NotInDomainFilter> filter(NotInDomainFilter("example.com", true));
        EXPECT_TRUE(filter(line));
        EXPECT_EQ(line, text);
        EXPECT_EQ(log.str(), "quoted key left as it is '" + text + "'\n");
    }
}

TEST(QuotedKeyTest, QuoteInsideALineIsNone) {
    const torva::test::CapturedClog log;
    std::string line = "a\"b@example.com x@example.org";
    const ElementsFilter<NotInDomainFilter> filter(NotInDomainFilter("example.com", false));
    EXPECT_FALSE(filter(line));
    EXPECT_EQ(log.str(), "");
}

} // namespace

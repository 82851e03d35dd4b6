#include "torva/postfix/params/ListValue.h"

#include <gmock/gmock.h>

using namespace torva::mail::postfix;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

TEST(SplitListTest, RunsOfSeparatorsCountAsOne) {
    EXPECT_THAT(splitList("a,, b\t c"), ElementsAre("a", "b", "c"));
}

TEST(SplitListTest, SeparatorsAtBothEndsLeaveNoElement) {
    EXPECT_THAT(splitList(" ,\ta, "), ElementsAre("a"));
}

TEST(SplitListTest, EmptyAndBlankValuesHaveNoElement) {
    EXPECT_THAT(splitList(""), IsEmpty());
    EXPECT_THAT(splitList(" \t,, "), IsEmpty());
}

TEST(SplitListTest, NothingInAnElementIsInterpreted) {
    EXPECT_THAT(splitList("$mydestination, hash:/a { b c }\nd"),
                ElementsAre("$mydestination", "hash:/a", "{", "b", "c", "}\nd"));
}

TEST(SplitAtCommasTest, ElementsOfTwoWordsStayWholeAndAreTrimmed) {
    EXPECT_THAT(splitAtCommas(" a b ,\tc\td ,,  , e"), ElementsAre("a b", "c\td", "e"));
}

TEST(JoinListTest, CommaAndBlankBetweenTheElements) {
    EXPECT_EQ(joinList({}), "");
    EXPECT_EQ(joinList({"a"}), "a");
    EXPECT_EQ(joinList({"a", "b", "c"}), "a, b, c");
}

struct Edit {
    const char* name;
    const char* list;
    const char* element;
    std::optional<std::string> wanted; ///< nothing: the list does not change
};

void PrintTo(const Edit& edit, std::ostream* out) {
    *out << edit.name;
}

std::string nameOf(const testing::TestParamInfo<Edit>& tested) {
    return tested.param.name;
}

class WithElementTest : public testing::TestWithParam<Edit> {};

TEST_P(WithElementTest, Appends) {
    EXPECT_EQ(withElement(GetParam().list, GetParam().element), GetParam().wanted);
}

INSTANTIATE_TEST_SUITE_P(
    Lists, WithElementTest,
    testing::Values(Edit{"ElementThatIsThereChangesNothing", "a, b", "b", std::nullopt},
                    Edit{"ExistingSeparatorsStayAsTheyWere", "a b", "c", "a b, c"},
                    Edit{"EmptyListGetsTheElementAlone", "", "c", "c"},
                    Edit{"ListOfSeparatorsGetsTheElementAlone", " , \t", "c", "c"},
                    Edit{"CaseMatters", "Example.com", "example.com", "Example.com, example.com"},
                    Edit{"TrailingDotMatters", "example.com.", "example.com",
                         "example.com., example.com"},
                    Edit{"PartOfAnElementIsNotThere", "hash:/a/virtual_domains", "hash:/a/virtual",
                         "hash:/a/virtual_domains, hash:/a/virtual"},
                    Edit{"TrailingSeparatorsAreKept", "a,", "b", "a,, b"}),
    nameOf);

class WithoutElementTest : public testing::TestWithParam<Edit> {};

TEST_P(WithoutElementTest, Drops) {
    EXPECT_EQ(withoutElement(GetParam().list, GetParam().element), GetParam().wanted);
}

INSTANTIATE_TEST_SUITE_P(
    Lists, WithoutElementTest,
    testing::Values(Edit{"EveryOccurrenceGoes", "x, y, x", "x", "y"},
                    Edit{"RestIsJoinedWithCommaAndBlank", "a b,c", "b", "a, c"},
                    Edit{"ElementThatIsNotThereChangesNothing", "x y", "z", std::nullopt},
                    Edit{"CaseMatters", "example.com", "Example.com", std::nullopt},
                    Edit{"LastElementLeavesAnEmptyValue", "x", "x", ""},
                    Edit{"EmptyListStaysAsItIs", "", "x", std::nullopt}),
    nameOf);

class WithRestrictionTest : public testing::TestWithParam<Edit> {};

TEST_P(WithRestrictionTest, Appends) {
    EXPECT_EQ(withRestriction(GetParam().list, GetParam().element), GetParam().wanted);
}

INSTANTIATE_TEST_SUITE_P(
    Lists, WithRestrictionTest,
    testing::Values(Edit{"EmptyParameterGetsTheEntryAlone", "", "key hash:/t", "key hash:/t"},
                    Edit{"EntryOfTwoWordsIsFoundWhole", "a, key hash:/t, b", "key hash:/t",
                         std::nullopt},
                    Edit{"WhiteSpaceAroundAnElementDoesNotCount", "a,\tkey hash:/t ,b",
                         "key hash:/t", std::nullopt},
                    Edit{"WhiteSpaceInsideAnElementCounts", "key  hash:/t", "key hash:/t",
                         "key  hash:/t, key hash:/t"},
                    Edit{"SameKeyWithAnotherTableIsAnotherEntry", "key hash:/u", "key hash:/t",
                         "key hash:/u, key hash:/t"},
                    Edit{"ElementsSeparatedByBlanksAreOneElement", "a key hash:/t", "key hash:/t",
                         "a key hash:/t, key hash:/t"},
                    Edit{"ListOfSeparatorsIsNotEmpty", ",", "key hash:/t", ",, key hash:/t"}),
    nameOf);

} // namespace

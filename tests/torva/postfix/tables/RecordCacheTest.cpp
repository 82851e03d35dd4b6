#include "torva/postfix/tables/RecordCache.h"

#include "support/AllocationFaults.h"

#include "torva/libc/Child.h"
#include "torva/util/PostfixError.h"

#include <gmock/gmock.h>

#include <functional>
#include <sys/resource.h>
#include <vector>

using namespace torva::mail::postfix;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace {

/// What std::unordered_map takes from the heap for a place in the list: its link, the key,
/// the place, the hash.
constexpr std::size_t placeSize =
    sizeof(void*) + sizeof(std::pair<const std::string, Records::iterator>) + sizeof(std::size_t);

TEST(CollectingRecordCacheTest, RecordsStayInTheirOrder) {
    RecordCache cache("hash:/nowhere", CacheMode::collecting);
    cache.put({{"b", "1"}, {"a", "2"}});
    cache.put({{"c", "3"}});
    EXPECT_THAT(cache.list(), ElementsAre(Pair("b", "1"), Pair("a", "2"), Pair("c", "3")));
}

TEST(CollectingRecordCacheTest, MergedRecordTakesThePlaceOfThePendingOneOfItsKey) {
    RecordCache cache("hash:/nowhere", CacheMode::collecting);
    cache.put({{"a", "1"}, {"b", "2"}});
    cache.put({{"a", "3"}, {"c", "4"}});
    EXPECT_THAT(cache.list(), ElementsAre(Pair("a", "3"), Pair("b", "2"), Pair("c", "4")));
}

TEST(CollectingRecordCacheTest, MergeReachesEveryPendingRecord) {
    RecordCache cache("hash:/nowhere", CacheMode::collecting);
    cache.put({{"a", "1"}, {"b", "2"}, {"c", "3"}});
    cache.put({{"b", "4"}});
    EXPECT_THAT(cache.list(), ElementsAre(Pair("a", "1"), Pair("b", "4"), Pair("c", "3")));
    cache.put({{"c", "5"}, {"c", "6"}, {"a", "7"}});
    EXPECT_THAT(cache.list(), ElementsAre(Pair("a", "7"), Pair("b", "4"), Pair("c", "6")));
}

TEST(CollectingRecordCacheTest, RemovedKeysAreNoLongerPending) {
    RecordCache cache("hash:/nowhere", CacheMode::collecting);
    cache.put({{"a", "1"}, {"b", "2"}});
    cache.remove({"a", "unknown"});
    cache.put({{"a", "3"}});
    EXPECT_THAT(cache.list(), ElementsAre(Pair("b", "2"), Pair("a", "3")));
}

TEST(CollectingRecordCacheTest, ListGoesThroughTheFilter) {
    RecordCache cache("hash:/nowhere", CacheMode::collecting);
    cache.put({{"a", "1"}, {"b", "2"}, {"c", "3"}});
    RecordFilter filter;
    filter.key = [](const std::string& key) { return key != "a"; };
    filter.value = [](std::string& value) {
        value += "!";
        return value != "3!";
    };
    EXPECT_THAT(cache.list(filter), ElementsAre(Pair("b", "2!")));
    EXPECT_THAT(cache.list(), ElementsAre(Pair("a", "1"), Pair("b", "2"), Pair("c", "3")));
}

TEST(CollectingRecordCacheTest, FreshCacheIsEmpty) {
    EXPECT_THAT(RecordCache("hash:/nowhere", CacheMode::collecting).list(), IsEmpty());
}

TEST(CollectingRecordCacheTest, LackOfMemoryKeepsTheRecordsBeforeTheOneThatDoesNotFit) {
    if (TORVA_TEST_ASAN != 0) {
        GTEST_SKIP() << "the sanitizer's allocator does not keep to RLIMIT_AS";
    }
    const auto outcome = torva::test::inChild([] {
        RecordCache cache("hash:/nowhere", CacheMode::collecting);
        cache.put({{"a", "1"}});
        const Records large = {{"b", "2"}, {"c", std::string(std::size_t{64} << 20U, 'x')}};
        const rlimit none = {0, 0};
        ::setrlimit(RLIMIT_AS, &none);
        try {
            cache.put(large);
        } catch (const PostfixDatabaseError& error) {
            const bool same = error.what() == std::string("unable to form record cache");
            return same && cache.list() == Records{{"a", "1"}, {"b", "2"}} ? 0 : 2;
        }
        return 1;
    });
    EXPECT_EQ(outcome.exited, 0);
}

TEST(CollectingRecordCacheTest, WithoutATableNameItCannotBeFormed) {
    RecordCache cache("", CacheMode::collecting);
    const std::vector<std::function<void()>> operations = {[&] {
                                                               cache.put({{"a", "1"}});
                                                           },
                                                           [&] { cache.remove({"a"}); },
                                                           [&] { cache.list(); }};
    for (const auto& operation : operations) {
        try {
            operation();
            ADD_FAILURE() << "no exception";
        } catch (const PostfixDatabaseError& error) {
            EXPECT_STREQ(error.what(), "unable to form record cache");
        }
    }
    EXPECT_NO_THROW(cache.flush());
}

TEST(CollectingRecordCacheTest, WithoutMemoryThePendingRecordsOfBeforeAreKept) {
    if (!torva::test::allocation_faults_work) {
        GTEST_SKIP() << torva::test::no_allocation_faults;
    }
    RecordCache cache("hash:/nowhere", CacheMode::collecting);
    cache.put({{"a", "1"}});
    const std::string key(500, 'k');
    const std::string value(700, 'v');
    const std::string longer(900, 'l');
    const Records records = {{key, value}};
    const Records replacement = {{"a", longer}};
    // Of the key, of the value, of the place that the key is known at, of a new value.
    for (const std::size_t size :
         {key.size() + 1, value.size() + 1, placeSize, longer.size() + 1}) {
        const torva::test::AllocationFaults faults(size, size);
        try {
            cache.put(size == longer.size() + 1 ? replacement : records);
            ADD_FAILURE() << "no exception: " << size;
        } catch (const PostfixDatabaseError& error) {
            EXPECT_STREQ(error.what(), "unable to form record cache");
        }
    }
    EXPECT_THAT(cache.list(), ElementsAre(Pair("a", "1")));
    cache.put(records);
    EXPECT_THAT(cache.list(), ElementsAre(Pair("a", "1"), Pair(key, value)));
}

TEST(TableFileTest, IsWhatFollowsTheFirstColon) {
    EXPECT_EQ(tableFile("hash:/var/spool/postfix/torva/virtual"),
              "/var/spool/postfix/torva/virtual");
    EXPECT_EQ(tableFile("proxy:hash:/a"), "hash:/a");
    EXPECT_EQ(tableFile("/plain"), "/plain");
}

} // namespace

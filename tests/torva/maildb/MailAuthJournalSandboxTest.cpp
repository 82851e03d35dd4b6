// The account that owns the database's directory replaces the database's journal, while root
// works there.
#include "torva/maildb/HostileFixture.h"

#include <gmock/gmock.h>

#include <cstdint>
#include <filesystem>
#include <sys/stat.h>

using namespace torva::test;
using namespace torva::test::hostile;
namespace fs = std::filesystem;

namespace {

TEST_F(HostileDirectory, AFifoInThePlaceOfTheJournalBlocksNobody) {
    ASSERT_EQ(0, mkfifo(journal.c_str(), 0666));
    EXPECT_THAT(bounded(look_up), testing::StartsWith("-1\n"));
    EXPECT_THAT(bounded(add_domain), testing::StartsWith("-1\n"));
    fs::remove(journal);
    EXPECT_EQ("0\n", bounded(look_up)) << "the records are as they were";
}

TEST_F(HostileDirectory, ALinkInThePlaceOfTheJournalIsNotFollowed) {
    const std::string before = state(victim);
    fs::create_symlink(victim, journal);
    bounded(look_up);
    bounded(add_domain);
    EXPECT_EQ(before, state(victim));
    fs::remove(journal);
    fs::create_symlink("/var/tmp/not-there", journal);
    bounded(look_up);
    bounded(add_domain);
    EXPECT_EQ("missing", state("/var/tmp/not-there"));
}

TEST_F(HostileDirectory, AFileLinkedAsTheJournalIsNeitherWrittenNorGivenAway) {
    for (const std::string text : {"somebody else's", ""}) {
        write_file(victim, text);
        chmod(victim.c_str(), 0640);
        fs::create_hard_link(victim, journal);
        bounded(look_up);
        bounded(add_domain);
        fs::remove(journal);
        EXPECT_EQ(text + "|0:0 33184 1", state(victim));
    }
}

/// A number in the format of a journal.
std::string big_endian(std::uint32_t number) {
    std::string bytes;
    for (const unsigned shift : {24U, 16U, 8U, 0U}) {
        bytes += static_cast<char>((number >> shift) & 0xffU);
    }
    return bytes;
}

/// The end of a journal that belongs to a transaction over several databases.
std::string super_journal_record(const std::string& name) {
    constexpr std::uint32_t locking_page = 0x40000000U / 4096U + 1;
    std::uint32_t sum = 0;
    for (const char c : name) {
        sum += static_cast<std::uint32_t>(static_cast<signed char>(c));
    }
    return big_endian(locking_page) + name + big_endian(static_cast<std::uint32_t>(name.size())) +
           big_endian(sum) + "\xd9\xd5\x05\xf9\x20\xa1\x63\xd7";
}

/// A database and the journal of an unfinished transaction, which names a super-journal.
void leave_journal_that_names(const std::string& super_journal) {
    {
        SqliteFile file(path);
        file.run("PRAGMA cache_size=1; BEGIN; WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL "
                 "SELECT i+1 FROM n WHERE i<5000) INSERT INTO domains (name) SELECT 'x' || i "
                 "FROM n");
        fs::copy_file(journal, journal + ".kept");
        fs::copy_file(path, path + ".kept");
    }
    fs::rename(path + ".kept", path);
    fs::rename(journal + ".kept", journal);
    write_file(journal, read_file(journal) + super_journal_record(super_journal));
}

TEST_F(HostileDirectory, AJournalThatNamesAnotherFileHasNothingDeleted) {
    const std::string before = state(victim);
    for (const auto& operation : {look_up, add_domain}) {
        leave_journal_that_names(victim);
        // Later versions of SQLite see that this cannot be a super-journal, and roll back.
        EXPECT_THAT(bounded(operation),
                    testing::AnyOf(testing::StartsWith("-1\n3 "), testing::StrEq("0\n")));
        EXPECT_EQ(before, state(victim));
        fs::remove(journal);
        EXPECT_EQ(0, mail_auth_create_db(postfix_type));
    }
}

TEST_F(HostileDirectory, AJournalThatNamesASuperJournalIsNotRolledBack) {
    const std::string super_journal = path + "-mj00000A900";
    write_file(super_journal, "somebody else's");
    const std::string before = state(super_journal);
    for (const auto& operation : {look_up, add_domain}) {
        leave_journal_that_names(super_journal);
        EXPECT_THAT(bounded(operation), testing::StartsWith("-1\n3 "));
        EXPECT_EQ(before, state(super_journal));
        fs::remove(journal);
        EXPECT_EQ(0, mail_auth_create_db(postfix_type));
    }
    fs::remove(super_journal);
}

} // namespace

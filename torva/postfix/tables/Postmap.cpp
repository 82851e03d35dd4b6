#include "torva/postfix/tables/Postmap.h"

#include "torva/postfix/params/MessageScan.h"
#include "torva/postfix/params/PostfixTool.h"
#include "torva/postfix/tables/HalfMadeIndex.h"
#include "torva/postfix/tables/Listing.h"
#include "torva/postfix/tables/PostmapCommand.h"
#include "torva/postfix/tables/ShieldedIndex.h"
#include "torva/postfix/tables/TableFiles.h"
#include "torva/util/FileLock.h"
#include "torva/util/PostfixError.h"

namespace torva::mail::postfix {

namespace {

void append(std::vector<char>& buffer, const std::string& text) {
    buffer.insert(buffer.end(), text.begin(), text.end());
}

void appendLine(std::vector<char>& buffer, const std::string& key) {
    append(buffer, key);
    buffer.push_back('\n');
}

template <class Pair>
void appendLine(std::vector<char>& buffer, const Pair& record) {
    append(buffer, record.first);
    buffer.push_back(' ');
    append(buffer, record.second);
    buffer.push_back('\n');
}

/// Produces one line of input per call: the whole input is never in memory.
template <class Iterator>
class LineFeeder {
public:
    LineFeeder(Iterator next, Iterator end) : next_(next), end_(end) {}

    bool operator()(std::vector<char>& buffer) {
        if (next_ != end_) {
            appendLine(buffer, *next_);
            ++next_;
        }
        return next_ != end_;
    }

private:
    Iterator next_;
    Iterator end_;
};

template <class Container>
process::InputProducer feederOf(const Container& container) {
    return LineFeeder<typename Container::const_iterator>(container.begin(), container.end());
}

void requireSuccess(const ToolResult& result) {
    if (!result.succeeded()) {
        throw PostfixConfigurationError(result.message());
    }
}

template <class Container>
void put(const std::string& table, const Container& records) {
    requireTableName(table);
    if (records.begin() == records.end()) {
        return;
    }
    const std::string source = tableFile(table);
    const FileLock lock(source, LockMode::wait);
    settleIndexes(source, IndexUse::changed);
    HalfMadeIndexGuard guard(source);
    requireSuccess(runTool(postmapCommand({"-r", "-i"}, table), feederOf(records)));
    guard.letGo();
}

} // namespace

void putRecords(const std::string& table, const Records& records) {
    put(table, records);
}

void putRecords(const std::string& table, const std::vector<Record>& records) {
    put(table, records);
}

void putRecords(const std::string& table, std::initializer_list<Record> records) {
    put(table, records);
}

void putRecords(const std::string& table, const std::map<std::string, std::string>& records) {
    put(table, records);
}

void deleteKeys(const std::string& table, const Keys& keys) {
    requireTableName(table);
    if (keys.empty()) {
        return;
    }
    const std::string source = tableFile(table);
    const FileLock lock(source, LockMode::wait);
    settleIndexes(source, IndexUse::changed);
    const ToolResult result = runTool(postmapCommand({"-d", "-"}, table), feederOf(keys));
    // postmap also exits with status 1 when a key was not in the table.
    if (result.signaled() ||
        (!result.succeeded() && reportsFailure(result.error, Severity::lenient))) {
        throw PostfixDatabaseError(result.message());
    }
}

Records dumpTable(const std::string& table, const RecordFilter& filter) {
    requireTableName(table);
    Records kept;
    LineCutter lines;
    const auto keepLine = [&](const std::string& line) {
        auto parsed = parseListingLine(line);
        if (!parsed || (filter.key && !filter.key(parsed->key)) || parsed->value.empty() ||
            (filter.value && !filter.value(parsed->value))) {
            return;
        }
        kept.emplace_back(std::move(parsed->key), std::move(parsed->value));
    };
    const std::string source = tableFile(table);
    const FileLock lock(source, LockMode::wait);
    settleIndexes(source, IndexUse::read);
    requireSuccess(runTool(postmapCommand({"-s"}, table), process::InputProducer(),
                           [&](const std::vector<char>& chunk) { lines.feed(chunk, keepLine); }));
    return kept;
}

void rebuildTable(const std::string& table) {
    requireTableName(table);
    const std::string source = tableFile(table);
    const FileLock lock(source, LockMode::wait);
    requireOwnSource(source);
    settleIndexes(source, IndexUse::rebuilt);
    ShieldedIndex index(table, IndexUse::rebuilt);
    HalfMadeIndexGuard guard(source);
    requireSuccess(runTool(postmapCommand({}, table)));
    guard.letGo();
    index.letGo();
}

} // namespace torva::mail::postfix

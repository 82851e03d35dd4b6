// The parts that only work on text, each on some hundred KiB of it, and as their floor one
// pass of memchr(3) over the same bytes, which looks for the separators. Every benchmark NAME
// has its floor NAME/floor; scripts/bench prints the ratios.
#include "torva/postfix/mastercf/MasterCfParser.h"
#include "torva/postfix/params/ListValue.h"
#include "torva/postfix/params/MessageScan.h"
#include "torva/postfix/tables/DataStreamFilter.h"
#include "torva/postfix/tables/ListingFilter.h"
#include "torva/postfix/tables/NotInDomainFilter.h"
#include "torva/process/ErrorRelay.h"

#include <benchmark/benchmark.h>

#include <cstring>
#include <functional>
#include <sstream>

using namespace torva::mail::postfix;

namespace {

std::string repeated(int count, const std::function<std::string(const std::string&)>& line) {
    std::string text;
    for (int number = 0; number < count; ++number) {
        text += line(std::to_string(number));
    }
    return text;
}

std::string services() {
    return repeated(2000, [](const std::string& number) {
        return "# service " + number + "\nname" + number +
               "  unix  -       n       n       -       10      pipe\n"
               "  flags=R user=nobody argv=/bin/program ${sender} ${recipient}\n";
    });
}

std::string messages() {
    return repeated(2000, [](const std::string& number) {
        return "postconf: warning: /etc/postfix/main.cf, line " + number +
               ": overriding earlier entry\n";
    });
}

std::string listing() {
    return repeated(5000, [](const std::string& number) {
        return "k" + number + "@e.net\ta" + number + "@d.net, b" + number + "@e.net\n";
    });
}

std::string list() {
    return repeated(2000, [](const std::string& number) {
        return "hash:/var/spool/postfix/table" + number + ", ";
    });
}

std::string records() {
    return repeated(2000, [](const std::string&) {
        return std::string("ET: SystemError\0EM: execve: No such file or directory\0EC: 2\0", 62);
    });
}

void parseServices(const std::string& text) {
    MasterCfLines lines;
    if (!parseMasterCf(text.data(), text.data() + text.size(), lines)) {
        std::abort();
    }
}

void scanMessages(const std::string& text) {
    if (reportsFailure(text, Severity::strict)) {
        std::abort();
    }
}

void appendToList(const std::string& text) {
    benchmark::DoNotOptimize(withElement(text, "hash:/new"));
}

void removeFromList(const std::string& text) {
    benchmark::DoNotOptimize(withoutElement(text, "hash:/var/spool/postfix/table1000"));
}

void appendRestriction(const std::string& text) {
    benchmark::DoNotOptimize(withRestriction(text, "reject_unauth_destination"));
}

void filterListing(const std::string& text) {
    using Filter = database::ElementsFilter<database::NotInDomainFilter>;
    std::ostringstream kept;
    database::DataStreamFilter<Filter> chain(kept,
                                             Filter(database::NotInDomainFilter("d.net", false)));
    chain({text.begin(), text.end()});
    benchmark::DoNotOptimize(kept.tellp());
}

void readRecords(const std::string& text) {
    std::ostringstream said;
    torva::process::ErrorReader reader(said);
    reader.feed(text.data(), text.size());
    reader.finish();
}

void countPieces(const std::string& text, char separator) {
    int count = 0;
    const char* at = text.data();
    const char* const end = at + text.size();
    while (const void* found = std::memchr(at, separator, static_cast<std::size_t>(end - at))) {
        at = static_cast<const char*>(found) + 1;
        ++count;
    }
    benchmark::DoNotOptimize(count);
}

void add(const std::string& name, std::size_t size, const std::function<void()>& work) {
    benchmark::RegisterBenchmark(name.c_str(), [size, work](benchmark::State& state) {
        for (auto _ : state) {
            work();
        }
        state.SetBytesProcessed(static_cast<std::int64_t>(size) * state.iterations());
    });
}

void addWithFloor(const std::string& name, const std::string& text, char separator,
                  void (*work)(const std::string&)) {
    add(name, text.size(), [text, work] { work(text); });
    add(name + "/floor", text.size(), [text, separator] { countPieces(text, separator); });
}

} // namespace

int main(int argc, char** argv) {
    addWithFloor("grammar of master.cf", services(), '\n', parseServices);
    addWithFloor("message scan", messages(), '\n', scanMessages);
    addWithFloor("list: append an element", list(), ',', appendToList);
    addWithFloor("list: remove an element", list(), ',', removeFromList);
    addWithFloor("list: append a restriction", list(), ',', appendRestriction);
    addWithFloor("listing filter", listing(), '\n', filterListing);
    addWithFloor("error relay: records", records(), '\0', readRecords);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
}

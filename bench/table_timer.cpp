// Times one operation on a lookup table, and prints "NAME VALUE" lines: the seconds
// that it took and the KiB by which the resident memory peaked above what it was.
// Only run inside scripts/sandbox: it takes the lock of the table.
//
//     table_timer put|delete TABLE COUNT    records "k0@e.net a0@d.net, b0@e.net" on
//     table_timer list TABLE
//     table_timer filter TABLE FILE         without d.net, into FILE
//     table_timer chunks SIZE FILE          the same of FILE, in chunks of SIZE bytes
//     table_timer write COUNT FILE          the records, for postmap's own input
#include "bench/Measure.h"
#include "torva/postfix/params/PostfixTool.h"
#include "torva/postfix/tables/DataStreamFilter.h"
#include "torva/postfix/tables/ListingFilter.h"
#include "torva/postfix/tables/NotInDomainFilter.h"
#include "torva/postfix/tables/Postmap.h"
#include "torva/postfix/tables/PostmapCommand.h"

#include <algorithm>
#include <exception>

using namespace torva;
using namespace torva::mail::postfix;

namespace {

using Chain = database::DataStreamFilter<database::ElementsFilter<database::NotInDomainFilter>>;

Chain withoutDomain(std::ostream& stream) {
    return {stream, database::ElementsFilter<database::NotInDomainFilter>(
                        database::NotInDomainFilter("d.net", false))};
}

std::string keyOf(std::size_t number) {
    return "k" + std::to_string(number) + "@e.net";
}

std::string valueOf(std::size_t number) {
    const std::string digits = std::to_string(number);
    return "a" + digits + "@d.net, b" + digits + "@e.net";
}

std::vector<Record> recordsOf(std::size_t count) {
    std::vector<Record> records;
    for (std::size_t number = 0; number < count; ++number) {
        records.emplace_back(keyOf(number), valueOf(number));
    }
    return records;
}

Keys keysOf(std::size_t count) {
    Keys keys;
    for (std::size_t number = 0; number < count; ++number) {
        keys.push_back(keyOf(number));
    }
    return keys;
}

template <class Work>
void measure(Work work) {
    bench::forgetPeak();
    const long before = bench::peakKb();
    const double seconds = bench::secondsOf(work);
    bench::report("seconds", seconds);
    bench::report("grown_kb", static_cast<double>(bench::peakKb() - before));
}

void filterListing(const std::string& table, const char* path) {
    measure([&] {
        std::ofstream file(path, std::ios::binary);
        const ToolResult result =
            runTool(postmapCommand({"-s"}, table), process::InputProducer(), withoutDomain(file));
        if (!result.succeeded() || !file.flush()) {
            bench::die("the listing failed: " + result.message());
        }
    });
}

// Reading the file is included, as it is in the other ways to do this.
void filterChunks(std::size_t size, const char* path) {
    std::ifstream file(path, std::ios::binary);
    std::ofstream nowhere("/dev/null", std::ios::binary);
    std::vector<char> chunk(size);
    measure([&] {
        Chain chain = withoutDomain(nowhere);
        while (file.read(chunk.data(), static_cast<std::streamsize>(size)) || file.gcount() > 0) {
            chunk.resize(static_cast<std::size_t>(file.gcount()));
            chain(chunk);
        }
    });
}

void writeRecords(std::size_t count, const char* path) {
    std::ofstream file(path, std::ios::binary);
    for (std::size_t number = 0; number < count; ++number) {
        file << keyOf(number) << ' ' << valueOf(number) << '\n';
    }
    if (!file.flush()) {
        bench::die("cannot write the records");
    }
}

void run(const std::string& what, const std::vector<std::string>& words) {
    if (what == "put") {
        const std::vector<Record> records = recordsOf(std::stoul(words.at(1)));
        measure([&] { putRecords(words[0], records); });
    } else if (what == "delete") {
        const Keys keys = keysOf(std::stoul(words.at(1)));
        measure([&] { deleteKeys(words[0], keys); });
    } else if (what == "list") {
        std::size_t count = 0;
        measure([&] { count = dumpTable(words.at(0)).size(); });
        bench::report("records", static_cast<double>(count));
    } else if (what == "filter") {
        filterListing(words.at(0), words.at(1).c_str());
    } else if (what == "chunks") {
        filterChunks(std::stoul(words.at(0)), words.at(1).c_str());
    } else if (what == "write") {
        writeRecords(std::stoul(words.at(0)), words.at(1).c_str());
    } else {
        bench::die("table_timer: unknown operation " + what);
    }
}

} // namespace

int main(int argc, char** argv) {
    try {
        run(argc > 1 ? argv[1] : "", {argv + std::min(argc, 2), argv + argc});
    } catch (const std::exception& error) {
        bench::die(std::string("table_timer: ") + error.what());
    }
}

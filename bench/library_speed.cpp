// How long the library takes with much input; prints, judges nothing. The second
// part changes the mail-authentication database of this host, so it is only run
// inside scripts/sandbox:
//
//     cmake --build --preset release --target library_speed_run
#include "maildb/mail_auth.h"
#include "postfix/tables/ListingFilter.h"
#include "postfix/tables/NotInDomainFilter.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ostream>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using namespace torva::mail::postfix::database;

template <class Work>
double secondsOf(Work work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

/// Counts what is written to it.
class CountingBuffer : public std::streambuf {
public:
    std::size_t count = 0;

protected:
    int_type overflow(int_type c) override {
        ++count;
        return c;
    }
    std::streamsize xsputn(const char*, std::streamsize size) override {
        count += static_cast<std::size_t>(size);
        return size;
    }
};

void filterInChunks(const std::vector<char>& text, std::size_t chunkSize) {
    CountingBuffer buffer;
    std::ostream stream(&buffer);
    DataStreamFilter<ElementsFilter<NotInDomainFilter>> chain(
        stream, ElementsFilter<NotInDomainFilter>(NotInDomainFilter("d.net", false)));
    std::vector<char> chunk;
    const double seconds = secondsOf([&] {
        for (std::size_t at = 0; at < text.size(); at += chunkSize) {
            const std::size_t end = std::min(text.size(), at + chunkSize);
            chunk.assign(text.begin() + static_cast<std::ptrdiff_t>(at),
                         text.begin() + static_cast<std::ptrdiff_t>(end));
            chain(chunk);
        }
    });
    std::printf("filter: %9zu bytes in chunks of %9zu: %6.2f s, %6.1f MB/s, %zu bytes kept\n",
                text.size(), chunkSize, seconds, static_cast<double>(text.size()) / seconds / 1e6,
                buffer.count);
}

std::vector<char> listingOf(std::size_t size, std::size_t lines) {
    const std::size_t width = size / lines;
    std::vector<char> text;
    text.reserve(size + width);
    for (std::size_t line = 0; line < lines; ++line) {
        std::string record = "k" + std::to_string(line) + "@e.net a@d.net, b@e.net,";
        record.resize(width - 1, 'c');
        record += '\n';
        text.insert(text.end(), record.begin(), record.end());
    }
    return text;
}

void measureAuthDatabase() {
    const int type = MAIL_SERVER_POSTFIX;
    if (mail_auth_create_db(type) != 0 || mail_auth_add_domain(type, "d.net", 0) != 0 ||
        mail_auth_set_user(type, "u@d.net", "p", 0, 0) != 0) {
        std::fprintf(stderr, "no mail-authentication database\n");
        std::exit(1);
    }
    std::fflush(nullptr);
    const pid_t reader = ::fork();
    if (reader == 0) {
        const double seconds = secondsOf([] {
            for (int i = 0; i < 20000; ++i) {
                mail_auth_user user = {};
                mail_auth_lookup(type, "u@d.net", &user);
                mail_auth_free_user(&user);
            }
        });
        std::printf("mail-auth: 20000 look-ups beside a writer: %.2f s\n", seconds);
        std::fflush(nullptr);
        ::_exit(0);
    }
    const double seconds = secondsOf([] {
        for (int i = 0; i < 2000; ++i) {
            mail_auth_set_domain_status(type, "d.net", i % 2);
        }
    });
    std::printf("mail-auth: 2000 changes beside a reader: %.2f s\n", seconds);
    ::waitpid(reader, nullptr, 0);
}

} // namespace

int main() {
    const std::vector<char> large = listingOf(100000000, 1000000);
    filterInChunks(large, large.size());
    filterInChunks(large, 1 << 20);
    filterInChunks(large, 4096);
    const std::vector<char> small = listingOf(1000000, 10000);
    filterInChunks(small, small.size());
    filterInChunks(small, 1);
    if (std::getenv("TORVA_SANDBOX") == nullptr) {
        std::printf("mail-auth: not in the sandbox, not measured\n");
        return 0;
    }
    ::mkdir("/var/spool/postfix/torva", 0755);
    measureAuthDatabase();
}

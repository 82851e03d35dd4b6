// The listing of a table as "postmap -s" prints it: cutting the bytes into lines and a
// line into key and value. Running postmap is Postmap.h; what to keep of a listing is up
// to a filter.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace torva::mail::postfix {

/// Cuts a stream of bytes into lines, whatever chunks it comes in. Takes time proportional
/// to the bytes, and keeps one unfinished line between chunks.
class LineCutter {
public:
    /// Calls consumer(std::string& line) for each line that the chunk completes, without
    /// its "\n". The rest, after the last "\n", waits for the next chunk.
    template <class Consumer>
    void feed(const std::vector<char>& chunk, Consumer&& consumer);

private:
    std::string pending_;
};

/// A line of a listing. Positions are offsets into the line.
struct ListingLine {
    std::string key;
    std::string::size_type valueStart; ///< first character of the value
    std::string value;                 ///< without blanks and tabs at both ends; may be empty
};

/// Splits a line: the key ends at the first blank or tab. A line without one is not a
/// record: it is reported on std::clog, and nothing is returned.
std::optional<ListingLine> parseListingLine(const std::string& line);

template <class Consumer>
void LineCutter::feed(const std::vector<char>& chunk, Consumer&& consumer) {
    auto start = chunk.begin();
    for (auto at = chunk.begin(); at != chunk.end(); ++at) {
        if (*at == '\n') {
            pending_.append(start, at);
            start = at + 1;
            std::string line;
            line.swap(pending_);
            consumer(line);
        }
    }
    pending_.append(start, chunk.end());
}

} // namespace torva::mail::postfix

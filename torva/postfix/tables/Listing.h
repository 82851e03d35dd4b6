// The listing of a table as "postmap -s" prints it: cutting the bytes into lines
// and a line into key and value. Running postmap is Postmap.h; what is kept of a
// listing is decided by a filter.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace torva::mail::postfix {

/// Cuts a stream of bytes into lines, whatever the chunks it comes in. Takes time
/// proportional to the bytes, and holds one unfinished line beyond the chunk.
class LineCutter {
public:
    /// Calls consumer(std::string& line) for each line that the chunk finishes,
    /// without its "\n". What follows the last "\n" waits for the next chunk.
    template <class Consumer>
    void feed(const std::vector<char>& chunk, Consumer&& consumer);

private:
    std::string pending_;
};

/// A line of a listing. Positions are offsets into the line.
struct ListingLine {
    std::string key;
    std::string::size_type valueStart; ///< first character of the value
    std::string value;                 ///< blanks and tabs at both ends trimmed; may be empty
};

/// Takes a line apart: the key ends at the first blank or tab. A line without one
/// is no record: it is reported on std::clog, and nothing is returned.
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

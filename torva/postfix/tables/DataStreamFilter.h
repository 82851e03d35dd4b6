// The beginning of the filter chain of ListingFilter.h: bytes become lines, and the
// lines that a filter accepts go to a stream.
#pragma once

#include "torva/postfix/tables/Listing.h"

#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace torva::mail::postfix::database {

/// Consumer of the bytes of a listing.
template <class LineFilter>
class DataStreamFilter {
public:
    /// \param stream  takes the lines that stay; must outlive the object
    DataStreamFilter(std::ostream& stream, LineFilter filter)
        : stream_(stream), filter_(std::move(filter)) {}

    /// Takes the next bytes, cut anywhere. Lines that they finish and the filter
    /// accepts are in the stream, each with its line end, and the stream is flushed
    /// when the call returns. An unfinished last line is never written.
    void operator()(const std::vector<char>& chunk);

private:
    std::ostream& stream_;
    LineFilter filter_;
    LineCutter lines_;
};

template <class LineFilter>
void DataStreamFilter<LineFilter>::operator()(const std::vector<char>& chunk) {
    lines_.feed(chunk, [this](std::string& line) {
        if (filter_(line)) {
            stream_ << line << '\n';
        }
    });
    // Once for all lines of the chunk: a system call for each line would take longer
    // than the rest of the chain.
    stream_.flush();
}

} // namespace torva::mail::postfix::database

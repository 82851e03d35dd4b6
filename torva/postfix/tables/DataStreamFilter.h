// The beginning of the filter chain of ListingFilter.h: cuts bytes into lines, and writes
// the lines that a filter accepts to a stream.
#pragma once

#include "torva/postfix/tables/Listing.h"

#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace torva::mail::postfix::database {

/// Consumer for the bytes of a listing.
template <class LineFilter>
class DataStreamFilter {
public:
    /// \param stream  takes the accepted lines; must outlive the object
    DataStreamFilter(std::ostream& stream, LineFilter filter)
        : stream_(stream), filter_(std::move(filter)) {}

    /// Takes the next bytes, cut anywhere. Writes the lines that they complete and the
    /// filter accepts, each with its line feed, and flushes the stream. An unfinished
    /// last line is never written.
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
    // Once for each chunk: a system call for each line would take longer than the rest of
    // the chain.
    stream_.flush();
}

} // namespace torva::mail::postfix::database

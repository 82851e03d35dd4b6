// Semantic actions for Boost.Spirit classic grammars that work on any target. The pieces
// of the grammars are ParserPieces.h; the actions specific to master.cf are in
// MasterCfParser.cpp.
// Private to the library: not installed.
#pragma once

namespace torva::parser {

/// Action: appends the matched text to a list of strings.
template <class Words>
class WordAppender {
public:
    explicit WordAppender(Words& words) : words_(words) {}

    template <class Iterator>
    void operator()(Iterator first, Iterator last) const {
        words_.emplace_back(first, last);
    }

private:
    Words& words_;
};

/// Action: assigns a fixed value, whatever was matched.
template <class Target>
class ConstAssigner {
public:
    ConstAssigner(Target& target, Target value) : target_(target), value_(value) {}

    template <class Iterator>
    void operator()(Iterator, Iterator) const {
        target_ = value_;
    }
    void operator()(char) const { target_ = value_; }

private:
    Target& target_;
    Target value_;
};

} // namespace torva::parser

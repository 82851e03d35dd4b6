// Pieces of line-oriented grammars over bytes, for Boost.Spirit classic: blanks,
// comments, the white space between the fields of a logical line. Use them without a
// skipper: they match white space explicitly. Actions to go with them are in
// ParserActions.h; the grammar that uses them is in MasterCfParser.cpp.
// Private to the library: not installed.
#pragma once

// Under sanitizers, GCC warns that the empty boost::optional of a failed match may be
// read.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <boost/spirit/include/classic_chset.hpp>
#include <boost/spirit/include/classic_core.hpp>
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

namespace torva::parser {

/// The end of a line is LF alone; a CR before it is a blank, or part of a comment.
inline const boost::spirit::classic::chlit<char> newline_p('\n');

/// TAB, SPACE and CR.
inline boost::spirit::classic::chset<char> blanks() {
    return boost::spirit::classic::chset<char>("\t \r");
}

/// A piece inside the definition of another grammar, where start() is its rule. A grammar
/// that is used as a parser itself looks up its definition at every position of the text,
/// which takes longer than matching most pieces.
template <class Piece, class Scanner>
struct definition_of : Piece::template definition<Scanner> {
    definition_of() : Piece::template definition<Scanner>(Piece()) {}
};

/// An empty line: any number of blanks, or none.
struct empty_line_parser : boost::spirit::classic::grammar<empty_line_parser> {
    template <class Scanner>
    struct definition {
        explicit definition(const empty_line_parser&) {
            line = boost::spirit::classic::lexeme_d[*blanks()];
        }
        const boost::spirit::classic::rule<Scanner>& start() const { return line; }

        boost::spirit::classic::rule<Scanner> line;
    };
};

/// A comment: from '#' to the end of the line, any bytes.
struct comments_parser : boost::spirit::classic::grammar<comments_parser> {
    template <class Scanner>
    struct definition {
        explicit definition(const comments_parser&) { comment = '#' >> *~newline_p; }
        const boost::spirit::classic::rule<Scanner>& start() const { return comment; }

        boost::spirit::classic::rule<Scanner> comment;
    };
};

/// A line with only a comment, which may be indented.
struct comments_line_parser : boost::spirit::classic::grammar<comments_line_parser> {
    template <class Scanner>
    struct definition {
        explicit definition(const comments_line_parser&) {
            line = empty_line.start() >> comments.start();
        }
        const boost::spirit::classic::rule<Scanner>& start() const { return line; }

        definition_of<empty_line_parser, Scanner> empty_line;
        definition_of<comments_parser, Scanner> comments;
        boost::spirit::classic::rule<Scanner> line;
    };
};

/// What may separate two fields of one logical line: blanks and a comment to the end of
/// the line; then, if the logical line goes on, the line break, lines that are empty or
/// hold only a comment, and the blanks that every continuation line begins with. It also
/// matches the empty text.
///
/// It looks ahead over all lines that might belong to it: a grammar should try it once
/// at a position, not once in each of several alternatives.
struct continuous_spaces_parser : boost::spirit::classic::grammar<continuous_spaces_parser> {
    template <class Scanner>
    struct definition {
        explicit definition(const continuous_spaces_parser&) {
            continuation =
                newline_p >> *(empty_line.start() >> !comments.start() >> newline_p) >> +blanks();
            spaces = empty_line.start() >> !comments.start() >> !continuation;
        }
        const boost::spirit::classic::rule<Scanner>& start() const { return spaces; }

        definition_of<empty_line_parser, Scanner> empty_line;
        definition_of<comments_parser, Scanner> comments;
        boost::spirit::classic::rule<Scanner> continuation;
        boost::spirit::classic::rule<Scanner> spaces;
    };
};

} // namespace torva::parser

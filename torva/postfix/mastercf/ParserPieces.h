// Pieces for line-oriented grammars over bytes, for Boost's Spirit classic: blanks,
// comments, the white space between the fields of a logical line. No skipper is meant
// to be used with them: white space is matched where it may stand. Actions that go
// with them are ParserActions.h; the grammar they were made for is MasterCfParser.cpp.
// Private to the library: not installed.
#pragma once

// Under sanitizers GCC takes the empty boost::optional of every match that failed
// for a value that may be read.
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

/// A piece inside the definition of another grammar, where start() is its rule. Used
/// as a parser itself, a grammar looks its definition up at every place of the text,
/// which takes longer than most pieces do.
template <class Piece, class Scanner>
struct definition_of : Piece::template definition<Scanner> {
    definition_of() : Piece::template definition<Scanner>(Piece()) {}
};

/// What may stand on an empty line: any number of blanks, none included.
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

/// A line that holds nothing but a comment, which may be indented.
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

/// What may stand between two fields of one logical line: blanks and a comment to
/// the end of the line; then, if the logical line goes on, the line break, lines
/// that are empty or hold only a comment, and the blanks that every continuation
/// line begins with. It matches nothing at all, too.
///
/// It looks ahead over all lines that might belong to it, once: a grammar should
/// try it once in a place, not once in each of several alternatives.
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

#include "torva/postfix/mastercf/MasterCfParser.h"

#include "torva/postfix/mastercf/ParserActions.h"
#include "torva/postfix/mastercf/ParserPieces.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace torva::mail::postfix {

namespace {

namespace spirit = boost::spirit::classic;

// Named one by one: within a grammar, "parser" is one of its base classes.
using parser::blanks;
using parser::comments_line_parser;
using parser::ConstAssigner;
using parser::continuous_spaces_parser;
using parser::definition_of;
using parser::empty_line_parser;
using parser::newline_p;
using parser::WordAppender;

// '-' between two characters makes a range; in first place it means itself. Upper-case
// letters are left out on purpose.
const char nameCharacters[] = "-a-z0-9_:.";

// Letters, digits and these, of which ')' to '_' is a range: all printable ASCII but '#',
// which always begins a comment. Letters and digits are spelled out because alnum_p
// depends on the locale.
const char wordCharacters[] = "a-zA-Z0-9"
                              "/!@$%$^&*()-_=+\\|[]{}:;'\"<>.,?*~`";

/// Action: resets the working record to its defaults, but keeps the memory of its list of
/// words, which would otherwise be allocated again for each service.
class RecordResetter {
public:
    explicit RecordResetter(MasterCfModule& record) : record_(record) {}

    void operator()(const char*, const char*) const {
        std::vector<std::string> words;
        words.swap(record_.words);
        words.clear();
        record_ = MasterCfModule();
        record_.words.swap(words);
    }

private:
    MasterCfModule& record_;
};

/// Action: assigns the matched text.
class TextAssigner {
public:
    explicit TextAssigner(std::string& text) : text_(text) {}

    void operator()(const char* first, const char* last) const { text_.assign(first, last); }

private:
    std::string& text_;
};

/// Action: stores an unsigned number in a signed field, keeping its bits: the largest one
/// becomes -1.
class NumberAssigner {
public:
    explicit NumberAssigner(std::int32_t& number) : number_(number) {}

    void operator()(std::uint32_t value) const { number_ = static_cast<std::int32_t>(value); }

private:
    std::int32_t& number_;
};

/// Action: stores the working record and the text of the service.
class MasterCfModuleAppender {
public:
    MasterCfModuleAppender(MasterCfModule& record, MasterCfLines& target)
        : record_(record), target_(target) {}

    void operator()(const char* first, const char* last) const {
        target_.set(record_, std::string(first, last));
    }

private:
    MasterCfModule& record_;
    MasterCfLines& target_;
};

/// Action: stores a line other than a service.
class MasterCfRawAppender {
public:
    explicit MasterCfRawAppender(MasterCfLines& target) : target_(target) {}

    void operator()(const char* first, const char* last) const {
        target_.append(std::string(first, last));
    }

private:
    MasterCfLines& target_;
};

/// Action, before a column: notes where it is tried, if somebody wants to know.
class FieldNoter {
public:
    FieldNoter(MasterCfProgress* progress, MasterCfField field)
        : progress_(progress), field_(field) {}

    void operator()(const char* first, const char*) const {
        if (progress_ != nullptr) {
            progress_->field = field_;
            progress_->fieldAt = first;
        }
    }

private:
    MasterCfProgress* progress_;
    MasterCfField field_;
};

/// The grammar. Alternatives are tried in order and the first match wins; repetitions are
/// greedy and do not backtrack.
///
/// It takes linear time, although the white space between two fields may span any number
/// of lines: a service tries it once after each field, only the try after the last word
/// can fail without ending the whole parse, and that one stops at the first line that is
/// neither empty nor a comment. So each byte is looked at by at most one such try and by
/// the rule for its own line. Repetitions are loops: the stack does not grow with the
/// text.
class MasterCfParser : public spirit::grammar<MasterCfParser> {
public:
    /// \param record  working record, not owned
    /// \param target  where lines and services are appended, not owned
    /// \param progress  takes the last column that was tried, not owned; null: not wanted
    MasterCfParser(MasterCfModule& record, MasterCfLines& target, MasterCfProgress* progress)
        : record_(record), target_(target), progress_(progress) {}

    template <class Scanner>
    class definition {
    public:
        explicit definition(const MasterCfParser& self) {
            defineFields(self.record_, self.progress_);
            defineLines(self.record_, self.target_);
        }

        const spirit::rule<Scanner>& start() const { return file; }

    private:
        void defineFields(MasterCfModule& record, MasterCfProgress* progress);
        void defineLines(MasterCfModule& record, MasterCfLines& target);

        definition_of<empty_line_parser, Scanner> emptyLine;
        definition_of<comments_line_parser, Scanner> commentLine;
        definition_of<continuous_spaces_parser, Scanner> spaces;
        spirit::rule<Scanner> file, line, service;
        spirit::rule<Scanner> name, type, private_, unpriv, chroot, wakeup, maxproc, words;
    };

private:
    MasterCfModule& record_;
    MasterCfLines& target_;
    MasterCfProgress* progress_;
};

template <class Scanner>
void MasterCfParser::definition<Scanner>::defineFields(MasterCfModule& record,
                                                       MasterCfProgress* progress) {
    using spirit::ch_p;
    using spirit::str_p;

    const spirit::chset<char> name_character(nameCharacters);
    const spirit::chset<char> word_character(wordCharacters);
    const spirit::uint_parser<std::uint32_t> number;
    const auto flag = [](boost::logic::tribool& field) {
        using Assign = ConstAssigner<boost::logic::tribool>;
        return ch_p('y')[Assign(field, true)] | ch_p('n')[Assign(field, false)] | ch_p('-');
    };
    const auto typeNamed = [&record](const char* spelling, ModuleType value) {
        return str_p(spelling)[ConstAssigner<ModuleType>(record.type, value)];
    };

    const auto noted = [progress](MasterCfField field) {
        return spirit::epsilon_p[FieldNoter(progress, field)];
    };

    // one or more name characters
    name = noted(MasterCfField::name) >> (+name_character)[TextAssigner(record.name)];
    // "inet", "unix" or "fifo"
    type = noted(MasterCfField::type) >>
           (typeNamed("inet", ModuleType::inet) | typeNamed("unix", ModuleType::unix) |
            typeNamed("fifo", ModuleType::fifo));
    // 'y', 'n', or '-' for the default
    private_ = noted(MasterCfField::private_) >> (flag(record.private_));
    // 'y', 'n', or '-' for the default
    unpriv = noted(MasterCfField::unpriv) >> (flag(record.unpriv));
    // 'y', 'n', or '-' for the default
    chroot = noted(MasterCfField::chroot) >> (flag(record.chroot));
    // '-', or a number of seconds, which a '?' may follow
    wakeup = noted(MasterCfField::wakeup) >>
             (ch_p('-') | (number[NumberAssigner(record.wakeup)] >>
                           !ch_p('?')[ConstAssigner<bool>(record.wakeupConditional, true)]));
    // '-', or a number
    maxproc = noted(MasterCfField::maxproc) >> (ch_p('-') | number[NumberAssigner(record.maxproc)]);
    // one or more words, which are one or more word characters each
    const auto word = (+word_character)[WordAppender<std::vector<std::string>>(record.words)];
    words = noted(MasterCfField::words) >> word >> *(spaces.start() >> word);
}

template <class Scanner>
void MasterCfParser::definition<Scanner>::defineLines(MasterCfModule& record,
                                                      MasterCfLines& target) {
    const spirit::rule<Scanner>& separator = spaces.start();
    // the columns of master(5) with white space between them, which may be empty; blanks
    // at the end belong to the service. The record is reset because a "-" would otherwise
    // keep the value of the service before.
    service = spirit::epsilon_p[RecordResetter(record)] >> name >> separator >> type >> separator >>
              private_ >> separator >> unpriv >> separator >> chroot >> separator >> wakeup >>
              separator >> maxproc >> separator >> words >> *blanks();
    // a service, a line with only a comment, or an empty line
    line = service[MasterCfModuleAppender(record, target)] |
           commentLine.start()[MasterCfRawAppender(target)] |
           emptyLine.start()[MasterCfRawAppender(target)];
    // lines separated by line feeds; the last one may be empty
    file = line >> *(newline_p >> line) >> !newline_p;
}

} // namespace

bool parseMasterCf(const char* first, const char* last, MasterCfLines& target) {
    MasterCfModule record;
    const MasterCfParser grammar(record, target, nullptr);
    return spirit::parse(first, last, grammar).full;
}

bool isNameCharacter(char c) {
    static const spirit::chset<char> characters(nameCharacters);
    return characters.test(c);
}

bool isWordCharacter(char c) {
    static const spirit::chset<char> characters(wordCharacters);
    return characters.test(c);
}

bool isBlank(char c) {
    static const spirit::chset<char> characters(parser::blanks());
    return characters.test(c);
}

MasterCfProgress progressOfMasterCf(const char* first, const char* last) {
    MasterCfProgress progress;
    MasterCfModule record;
    MasterCfLines dropped;
    const MasterCfParser grammar(record, dropped, &progress);
    const auto result = spirit::parse(first, last, grammar);
    progress.whole = result.full;
    progress.stop = result.stop;
    return progress;
}

} // namespace torva::mail::postfix

#include "torva/postfix/mastercf/MasterCfDiagnosis.h"

#include "torva/postfix/mastercf/MasterCfParser.h"

#include <algorithm>

namespace torva::mail::postfix {

namespace {

struct FieldRule {
    const char* name;
    const char* wanted;
};

/// In the order of MasterCfField, from "type" to "maxproc".
const FieldRule rules[] = {
    {"type", "inet, unix or fifo"}, {"private", "y, n or -"},    {"unpriv", "y, n or -"},
    {"chroot", "y, n or -"},        {"wakeup", "a number or -"}, {"maxproc", "a number or -"},
};

bool isBlank(char character) {
    return character == ' ' || character == '\t' || character == '\r';
}

bool isPrintable(char character) {
    return character >= ' ' && character <= '~';
}

bool isDigit(char character) {
    return character >= '0' && character <= '9';
}

/// The word at a position, in quotes, with "?" for each unprintable character.
std::string wordAt(const char* at, const char* last) {
    std::string word;
    for (; at != last && !isBlank(*at) && *at != '\n'; ++at) {
        word += isPrintable(*at) ? *at : '?';
    }
    return word.empty() ? "the end of the entry" : "\"" + word + "\"";
}

class Diagnostician {
public:
    Diagnostician(const char* first, const char* last)
        : first_(first), last_(last), progress_(progressOfMasterCf(first, last)) {}

    std::optional<MasterCfDiagnosis> diagnosis() const {
        if (progress_.whole) {
            return std::nullopt;
        }
        if (continuesNothing()) {
            return at(progress_.stop, wordAt(progress_.stop, last_) + " continues no entry");
        }
        if (progress_.fieldAt != nullptr && progress_.fieldAt >= progress_.stop) {
            return at(progress_.fieldAt, reasonForField());
        }
        return at(progress_.stop, reasonAfterEntry());
    }

private:
    MasterCfDiagnosis at(const char* place, const std::string& reason) const {
        const auto breaks = std::count(first_, place, '\n');
        return {static_cast<std::size_t>(breaks) + 1, reason};
    }

    /// Whether the line begins with a blank but there is no entry for it to continue.
    bool continuesNothing() const {
        const char* begin = progress_.stop;
        while (begin != first_ && begin[-1] != '\n') {
            --begin;
        }
        return begin != progress_.stop && std::all_of(begin, progress_.stop, isBlank);
    }

    /// The beginning of the word when a column was tried in the middle of one; null: it was
    /// tried at the beginning of a word, or after the last.
    const char* gluedWord() const {
        const char* place = progress_.fieldAt;
        if (place == last_ || isBlank(*place) || *place == '\n') {
            return nullptr;
        }
        const char* begin = place;
        while (begin != progress_.stop && !isBlank(begin[-1]) && begin[-1] != '\n') {
            --begin;
        }
        return begin == place ? nullptr : begin;
    }

    std::string reasonForField() const {
        const char* place = progress_.fieldAt;
        const char* glued = gluedWord();
        if (progress_.field == MasterCfField::name ||
            (progress_.field == MasterCfField::type && glued != nullptr)) {
            return wordAt(progress_.stop, last_) +
                   " in a service name, which holds a-z, 0-9 and -_:. only";
        }
        if (glued != nullptr && progress_.field <= MasterCfField::chroot) {
            // "unix-dgram" is taken as "unix" and "-" up to its "d".
            return "type must be inet, unix or fifo, not " + wordAt(glued, last_);
        }
        if (progress_.field == MasterCfField::words) {
            return "a command must follow maxproc, not " + wordAt(place, last_);
        }
        const auto column = static_cast<std::size_t>(progress_.field);
        const FieldRule& rule = rules[column - static_cast<std::size_t>(MasterCfField::type)];
        const char* end = std::find_if_not(place, last_, isDigit);
        if (end != place) {
            return std::string(rule.name) + " " + std::string(place, end) + " is too great";
        }
        return std::string(rule.name) + " must be " + rule.wanted + ", not " + wordAt(place, last_);
    }

    std::string reasonAfterEntry() const {
        if (progress_.stop != last_ && *progress_.stop == '#') {
            return "a comment after the last word of an entry";
        }
        return wordAt(progress_.stop, last_) + " holds a character that is not printable ASCII";
    }

    const char* first_;
    const char* last_;
    MasterCfProgress progress_;
};

} // namespace

std::string MasterCfDiagnosis::text() const {
    return "line " + std::to_string(line) + ": " + reason;
}

std::optional<MasterCfDiagnosis> diagnoseMasterCf(const std::string& text) {
    if (text.empty()) {
        return MasterCfDiagnosis{1, "the file is empty"};
    }
    return Diagnostician(text.data(), text.data() + text.size()).diagnosis();
}

} // namespace torva::mail::postfix

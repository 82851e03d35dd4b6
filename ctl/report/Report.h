// The output of the verbs: lines for people, or one JSON object per line for programs. Only
// this writes to standard output.
#pragma once

#include "ctl/report/Finding.h"

#include <string>
#include <utility>
#include <vector>

namespace torva::ctl {

/// Output is written immediately. A reader that is gone, or a full disk, ends no verb: one that
/// has begun goes on to its end.
class Report {
public:
    /// A name and its value in a JSON object.
    struct Field {
        Field(std::string fieldName, std::string fieldText)
            : name(std::move(fieldName)), text(std::move(fieldText)) {}
        Field(std::string fieldName, long long fieldNumber)
            : name(std::move(fieldName)), number(fieldNumber), isNumber(true) {}

        std::string name;
        std::string text;
        long long number = 0;
        bool isNumber = false;
    };

    /// \param verb      the current verb, which is part of every object
    /// \param json      true: objects; false: lines
    /// \param instance  configuration directory of an instance of Postfix that is not the
    ///                  usual one, for advice; else empty
    Report(std::string verb, bool json, std::string instance = "");

    /// Prints a finding: "LEVEL SUBJECT TEXT" and below it the advice after an arrow; or an
    /// object of level, subject, text, and action if there is advice.
    void finding(const Finding& finding);
    void findings(const std::vector<Finding>& findings);

    /// The advice of a finding for this instance of Postfix, see InstanceAdvice.h.
    std::string adviceOf(const Finding& finding) const;

    /// Prints a heading above a part of a longer report; nothing for programs.
    void heading(const std::string& text);

    /// Prints an object of the fields; or, for people, the line, which may be several, with
    /// control characters shown and not sent to the terminal, see Printable.h.
    void object(const std::vector<Field>& fields, const std::string& line);

    /// Whether a finding of this level has been printed.
    bool stopped() const { return stopped_; }
    bool json() const { return json_; }

    /// The errno for which some of the output is lost; 0: none is. That a reader is gone does
    /// not count.
    int lostBy() const { return lostBy_; }

private:
    void emit(const std::vector<Field>& fields, const std::string& line);
    void put(const std::string& text);

    std::string verb_;
    bool json_;
    std::string instance_;
    bool coloured_;
    std::size_t width_;
    bool stopped_ = false;
    int lostBy_ = 0;
};

/// Prints a line on standard error, after the name of the program.
void complain(const std::string& text);

} // namespace torva::ctl

// What the verbs print: lines for people, or one JSON object a line for programs. The
// only place that writes to standard output.
#pragma once

#include "ctl/report/Finding.h"

#include <string>
#include <utility>
#include <vector>

namespace torva::ctl {

/// Every output is written at once. A reader that has gone, or a full disk behind
/// standard output, is no error: what a verb has begun is brought to its end.
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

    /// \param verb  the verb at work, which every object names
    /// \param json  true: objects; false: lines
    Report(std::string verb, bool json);

    /// Prints a finding: "LEVEL SUBJECT TEXT" and below it the advice behind an arrow;
    /// or an object of level, subject, text, and action where there is advice.
    void finding(const Finding& finding);
    void findings(const std::vector<Finding>& findings);

    /// A heading above a part of a longer report; nothing for programs.
    void heading(const std::string& text);

    /// Prints an object of the fields; or the line, which may be several, for people.
    void object(const std::vector<Field>& fields, const std::string& line);

    /// Whether a finding of this level has been printed.
    bool stopped() const { return stopped_; }
    bool json() const { return json_; }

private:
    std::string verb_;
    bool json_;
    bool coloured_;
    std::size_t width_;
    bool stopped_ = false;
};

/// Prints a line on standard error, behind the name of the program.
void complain(const std::string& text);

} // namespace torva::ctl

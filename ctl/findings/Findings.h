// Collects findings.
#pragma once

#include "ctl/report/Finding.h"

#include <string>
#include <vector>

namespace torva::ctl {

class Findings {
public:
    void ok(const std::string& subject, const std::string& text);
    void warning(const std::string& subject, const std::string& text, const std::string& advice);
    void stop(const std::string& subject, const std::string& text, const std::string& advice);

    /// Adds an ok finding for the subject, unless it has a warning or a stop.
    void fine(const std::string& subject, const std::string& text);

    bool stopped() const;
    const std::vector<Finding>& all() const { return all_; }

private:
    std::vector<Finding> all_;
};

} // namespace torva::ctl

// The early end of a verb.
#pragma once

#include "ctl/report/Finding.h"

#include <stdexcept>
#include <string>

namespace torva::ctl {

/// What failed, why, and what to do: a finding with the level "failed".
class Failure : public std::runtime_error {
public:
    Failure(const std::string& subject, const std::string& text, const std::string& advice)
        : std::runtime_error(text), finding_{Level::failed, subject, text, advice} {}

    explicit Failure(const Finding& finding)
        : std::runtime_error(finding.text), finding_(finding) {}

    const Finding& finding() const { return finding_; }

private:
    Finding finding_;
};

/// A failure before a verb has begun: for people it is told on standard error.
class Refusal : public Failure {
public:
    using Failure::Failure;
};

} // namespace torva::ctl

// The findings of a rehearsal: one for each message, for each missing program, for each
// service that could not start. Pure; the facts come from Stage.cpp.
#pragma once

#include "ctl/rehearsal/Attempt.h"
#include "ctl/rehearsal/LogLine.h"
#include "ctl/rehearsal/ServiceFaults.h"
#include "ctl/rehearsal/ServicePrograms.h"
#include "ctl/report/Finding.h"

#include <chrono>
#include <string>
#include <vector>

namespace torva::ctl::rehearsal {

/// Facts that advice may refer to.
struct Surroundings {
    std::vector<MissingProgram> missing;
    std::string hostName;
    std::string myDestination;              ///< as main.cf has it, not expanded
    std::vector<std::string> disabled = {}; ///< services of master.cf that are switched off
};

/// What happened to a message.
///
/// \param log  the whole log
Finding tellAttempt(const Attempt& attempt, const std::vector<LogLine>& log,
                    const Surroundings& around);

/// That a program is missing, and which services need it.
Finding tellMissing(const MissingProgram& program);

/// That a service could not start, or ended.
Finding tellFault(const ServiceFault& fault);

/// That Postfix did not start, so that no message was sent.
///
/// \param said  what "postfix start" printed, if anything
Finding tellNoStart(const std::string& said, const std::vector<LogLine>& log);

/// That Postfix was still starting when it was no longer waited for.
Finding tellSlowStart(std::chrono::seconds waited, const std::vector<LogLine>& log);

/// That the rehearsal itself failed.
Finding tellTrouble(const std::string& why);

} // namespace torva::ctl::rehearsal

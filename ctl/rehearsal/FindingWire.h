// The format in which findings are sent from the inner world to the caller of the
// rehearsal: records of four texts, each ended by a null byte. Pure.
#pragma once

#include "ctl/report/Finding.h"

#include <string>
#include <vector>

namespace torva::ctl::rehearsal {

/// The received findings.
struct Received {
    std::vector<Finding> findings;
    std::string step; ///< the last step that was begun; empty: none
};

/// A finding as a record. Null bytes in its texts become blanks.
std::string encode(const Finding& finding);

/// The beginning of a step as a record.
///
/// \param step  for the reader: "starting Postfix"
std::string encodeStep(const std::string& step);

/// Reads records. An incomplete one at the end, from a process that died, is ignored.
Received decode(const std::string& records);

} // namespace torva::ctl::rehearsal

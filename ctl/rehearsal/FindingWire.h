// How findings travel from the inner world to whoever asked for the rehearsal: records
// of four texts, each ended by a null byte. Pure.
#pragma once

#include "ctl/report/Finding.h"

#include <string>
#include <vector>

namespace torva::ctl::rehearsal {

/// What has arrived.
struct Received {
    std::vector<Finding> findings;
    std::string step; ///< what was begun last; empty: nothing
};

/// A finding as a record. Null bytes in its texts become blanks.
std::string encode(const Finding& finding);

/// That a step begins, as a record.
///
/// \param step  for the reader: "starting Postfix"
std::string encodeStep(const std::string& step);

/// Reads records. One that is cut off at the end, by a death, is left out.
Received decode(const std::string& records);

} // namespace torva::ctl::rehearsal

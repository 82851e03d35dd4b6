// What the Postfix of this host says of what a run uses: asked with the run's own
// parameters and command lines, on files of our own in a scratch directory.
#pragma once

#include "ctl/host/ToolWords.h"

#include <string>
#include <vector>

namespace torva::ctl {

struct RunSupport {
    bool isAsked = false;                  ///< false: nothing below is known
    std::vector<DroppedParameter> dropped; ///< of the parameters that a run sets
    std::string droppedTables; ///< postmap's words when a later Postfix drops the type of the
                               ///< panel's tables; empty: it does not say so
    std::string tableFailure;  ///< what ends a run at a table of the panel, in postmap's words;
                               ///< empty: such a table can be made, and records put into it
};

/// \throws SystemError  no scratch directory
RunSupport askRunSupport();

} // namespace torva::ctl

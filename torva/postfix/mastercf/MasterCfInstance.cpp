// The part of MasterCf that runs a Postfix tool.
#include "torva/postfix/mastercf/MasterCf.h"

#include "torva/postfix/params/PostfixParameters.h"
#include "torva/util/PostfixError.h"

namespace torva::mail::postfix {

MasterCf& MasterCf::instance() {
    static MasterCf shared(masterCfPath());
    return shared;
}

std::string MasterCf::masterCfPath() {
    const std::string directory = PostfixParameters::instance().getParameter("config_directory");
    if (directory.empty()) {
        throw PostfixConfigurationError("unable to determine Postfix config_directory parameter");
    }
    return directory + "/master.cf";
}

} // namespace torva::mail::postfix

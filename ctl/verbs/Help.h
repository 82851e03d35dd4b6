// The texts of --help, in general and for each verb. Lines of at most 80 columns.
#pragma once

#include <string>

namespace torva::ctl {

/// \param verb  empty: all verbs
std::string helpFor(const std::string& verb);

} // namespace torva::ctl
